#include "safety_options.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>

#include "brix_tcp_server.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "text_queue.h"
#include "two_clients.h"
#include "two_servers.h"

namespace {

using brix::ClientSafetyOptions;
using brix::ServerSafetyOptions;
using test::CommandServer;
using test::eventually;
using test::RawSocket;
using test::StateServer;

template <typename Server>
class SafetyOptions : public testing::Test {
 protected:
  /// Connects, and waits until the server serves the client.
  RawSocket served(const std::string& name) {
    RawSocket client = RawSocket::connectTo(server.port());
    client.send(name + "\r\n");
    EXPECT_TRUE(eventually([&] { return server.received.count(name) == 1; }));
    return client;
  }

  test::LogCapture log;
  Server server;
  ServerSafetyOptions options;
};

using Servers = testing::Types<StateServer, CommandServer>;
TYPED_TEST_SUITE(SafetyOptions, Servers, );

TYPED_TEST(SafetyOptions, ListensOnOneAddressOnly) {
  this->options.bindAddress = "127.0.0.2";
  ASSERT_TRUE(this->server.start(this->options));
  EXPECT_THROW(RawSocket::connectTo(this->server.port()), std::runtime_error);
  TypeParam other;
  this->options.bindAddress = "127.0.0.256";
  EXPECT_FALSE(other.start(this->options));
  EXPECT_TRUE(eventually([&] { return this->log.infos("Unable to bind") == 1; }));
}

TYPED_TEST(SafetyOptions, LetsOnlyAllowedPeersIn) {
  for (const char* bad : {"", "10.0.0", "10.0.0.1/33", "10.0.0.1/", "10.0.0.1/8x", "arm"}) {
    TypeParam refusing;
    this->options.allowedPeers = {"127.0.0.1", bad};
    EXPECT_FALSE(refusing.start(this->options)) << bad;
    EXPECT_EQ(this->log.errors(std::string("allowed peer \"") + bad + "\""), 1U);
  }
  this->options.allowedPeers = {"10.0.0.0/8", "127.0.0.2"};
  ASSERT_TRUE(this->server.start(this->options));
  for (int i = 0; i < 3; ++i) {
    const RawSocket stranger = RawSocket::connectTo(this->server.port());
    EXPECT_TRUE(eventually([&] { return stranger.ended(); }));
  }
  EXPECT_EQ(this->log.errors("client 127.0.0.1 is not allowed"), 1U);  // one line a minute
  TypeParam open;
  this->options.allowedPeers = {"0.0.0.0/0"};
  ASSERT_TRUE(open.start(this->options));
  const RawSocket client = RawSocket::connectTo(open.port());
  client.send("in\r\n");
  EXPECT_TRUE(eventually([&] { return open.received.count("in") == 1; }));
}

TYPED_TEST(SafetyOptions, CountsClientsAsTheyAre) {
  this->options.maxClients = 6;  // more than the command server's own four
  ASSERT_TRUE(this->server.start(this->options));
  std::vector<RawSocket> clients;
  for (int i = 0; i < 6; ++i) clients.push_back(this->served("c" + std::to_string(i)));
  const RawSocket seventh = RawSocket::connectTo(this->server.port());
  EXPECT_TRUE(eventually([&] { return seventh.ended(); }));
  EXPECT_EQ(this->log.errors("too many clients, connection of 127.0.0.1 closed"), 1U);
  clients.pop_back();
  EXPECT_TRUE(eventually([&] {  // until the server has seen the end
    const RawSocket next = RawSocket::connectTo(this->server.port());
    next.send("next\r\n");
    return eventually([&] { return this->server.received.count("next") > 0 || next.ended(); }) &&
           this->server.received.count("next") > 0;
  }));
}

TEST(SafetyOptionsOfStateServer, ReadNoFurtherThanItMayQueueAndLoseNothing) {
  constexpr std::size_t kMessageBytes = 1 << 16, kFarTooMany = 1 << 10;
  std::promise<void> go;
  std::size_t sent = 0;
  std::atomic<std::size_t> received{0};
  StateServer server;
  ServerSafetyOptions options;
  options.maxQueuedBytes = 1 << 20;
  ASSERT_TRUE(server.start(options));
  server.server.registerMsgListener([&, gone = go.get_future().share()](const std::string&) {
    gone.wait();
    ++received;
  });
  const RawSocket client = RawSocket::connectTo(server.port());
  pollfd entry{client.fd(), POLLOUT, 0};
  for (; sent < kFarTooMany && poll(&entry, 1, 500) == 1; ++sent) {
    client.send(std::string(kMessageBytes, 'm') + "\r\n");
  }
  EXPECT_LT(sent, kFarTooMany);
  go.set_value();
  EXPECT_TRUE(eventually([&] { return received == sent; })) << received << " of " << sent;
}

TEST(SafetyOptionsOfCommandServer, KeepClientsApartAndTakeControlTextsForData) {
  CommandServer server;
  ASSERT_TRUE(server.start(ServerSafetyOptions::hardened()));
  std::vector<RawSocket> clients;  // more than the four of default, which never end a message
  for (const char* text : {"exit", "q", "Q", "half", "open"}) {
    clients.push_back(RawSocket::connectTo(server.port()));
    clients.back().send(text);
  }
  const auto anyEnded = [&] {
    return std::any_of(clients.begin(), clients.end(), [](auto& client) { return client.ended(); });
  };
  EXPECT_FALSE(eventually(anyEnded, 100));
  for (const RawSocket& client : clients) client.send("!\r\n");
  for (const char* text : {"exit!", "q!", "Q!", "half!", "open!"}) {
    EXPECT_TRUE(server.received.gets(text)) << text;
  }
  EXPECT_EQ(ServerSafetyOptions::hardened().maxClients, 16);
}

TEST(TextQueue, DropsTheOldestAboveItsLimit) {
  const test::LogCapture log;
  brix::TextQueue queue;
  queue.setLimit(10000);
  for (int i = 0; i < 100; ++i) queue.push(std::to_string(i) + std::string(1000, '.'));
  EXPECT_LT(queue.size(), 10U);
  EXPECT_TRUE(queue.pop().compare(0, 3, std::to_string(100 - queue.size() - 1) + ".") == 0);
  EXPECT_EQ(log.errors("oldest texts dropped"), 1U);  // one line a second
  queue.clear();
  EXPECT_TRUE(queue.empty());
  queue.push(std::string(20000, 'x'));  // one alone is never dropped
  EXPECT_EQ(queue.pop().size(), 20000U);
}

TEST(ClientSafetyOptions, RefuseAnAddressThatDoesNotParse) {
  const test::RawListener listener;
  for (const bool strict : {false, true}) {
    ClientSafetyOptions options;
    options.strictAddress = strict;
    brix::TcpClient plain("robot", listener.port());
    plain.setSafetyOptions(options);
    EXPECT_EQ(plain.connectServer(1), strict ? -1 : 1);
    plain.closeClient();
    brix::TcpClientWrapper wrapper;
    wrapper.setSafetyOptions(options);
    EXPECT_EQ(wrapper.connectSocket("robot", listener.port()), strict ? -1 : 1);
  }
}

TEST(ClientSafetyOptions, ReclaimWhatWouldStayOpen) {
  const test::RawListener listener(64);
  const std::size_t before = test::openDescriptors();
  for (int i = 0; i < 10; ++i) {
    brix::TcpClient client("127.0.0.1", listener.port());
    client.setSafetyOptions(ClientSafetyOptions::hardened());
    ASSERT_EQ(client.connectServer(1), 1);
    ASSERT_EQ(client.connectServer(1), 1);
  }
  EXPECT_EQ(test::openDescriptors(), before);
}

template <typename Client>
class ClientSafety : public testing::Test {};
using Clients = testing::Types<test::StateClient, test::CommandClient>;
TYPED_TEST_SUITE(ClientSafety, Clients, );

TYPED_TEST(ClientSafety, DropsWhatIsStaleAndEndsAnEndlessMessage) {
  const test::LogCapture log;
  const test::RawListener listener;
  ClientSafetyOptions options = ClientSafetyOptions::hardened();
  options.maxMessageBytes = 1000;
  TypeParam client(options);
  ASSERT_EQ(client.connect(listener.port()), 1);
  {
    const RawSocket server = listener.accept();
    server.send("one\r\nhalf of tw");
    EXPECT_TRUE(client.received.gets("one"));
    client.disconnect();
  }
  ASSERT_EQ(client.connect(listener.port()), 1);
  const RawSocket server = listener.accept();
  server.send("whole\r\n");
  EXPECT_TRUE(client.received.gets("whole"));
  server.send(std::string(1001, 'x'));
  EXPECT_TRUE(eventually([&] { return !client.connected(); }));
  EXPECT_EQ(log.errors("is too long, connection ended"), 1U);  // and not for its silence
}

TEST(ClientSafetyOptions, DropRequestsOfTheConnectionBefore) {
  const test::RawListener listener;
  test::CommandClient client(ClientSafetyOptions::hardened());
  ASSERT_EQ(client.connect(listener.port()), 1);
  const RawSocket stuck = listener.accept();
  for (int i = 0; i < 16; ++i) client.send(std::string(1 << 20, 'b'));
  client.send("old");
  client.disconnect();
  ASSERT_EQ(client.connect(listener.port()), 1);
  const RawSocket server = listener.accept();
  client.send("new");
  std::string got;
  EXPECT_TRUE(eventually([&] {
    got += server.read(1 << 20, 5);
    return got.find("new\r\n") != got.npos;
  }));
  EXPECT_EQ(got.find("old\r\n"), got.npos);
}

}  // namespace
