// What the safety options promise when a limit is reached.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>

#include <limits>
#include <optional>
#include <thread>

#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_client.h"
#include "two_clients.h"
#include "two_servers.h"

namespace {

using brix::ClientSafetyOptions;
using brix::ServerSafetyOptions;
using test::CommandServer;
using test::eventually;
using test::RawListener;
using test::RawSocket;
using test::StateServer;

int optionOf(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(fd, level, name, &value, &size);
  return value;
}

template <typename Server>
class SafetyLimits : public testing::Test {
 protected:
  test::LogCapture log;
  Server server;
  ServerSafetyOptions options;
};

using Servers = testing::Types<StateServer, CommandServer>;
TYPED_TEST_SUITE(SafetyLimits, Servers, );

TYPED_TEST(SafetyLimits, RefuseWhatCannotBe) {
  this->options.maxClients = -1;
  EXPECT_FALSE(this->server.server.setSafetyOptions(this->options));
  this->options = {};
  this->options.peerTimeoutMs = -1;
  EXPECT_FALSE(this->server.server.setSafetyOptions(this->options));
  EXPECT_EQ(this->log.errors("negative safety option"), 2U);
  for (const char* nobody : {"224.0.0.1", "255.255.255.255"}) {
    this->options = {};
    this->options.bindAddress = nobody;
    TypeParam other;
    EXPECT_FALSE(other.start(this->options)) << nobody;
  }
  ASSERT_TRUE(this->server.start());
  EXPECT_FALSE(this->server.server.setSafetyOptions({}));
  EXPECT_EQ(this->log.errors("safety options not set"), 1U);
}

TYPED_TEST(SafetyLimits, CountClientsWhenTheyCome) {
  this->options.maxClients = 2;
  ASSERT_TRUE(this->server.start(this->options));
  for (int round = 0; round < 3; ++round) {
    const std::string name = std::to_string(round);
    {
      const RawSocket first = RawSocket::connectTo(this->server.port());
      const RawSocket second = RawSocket::connectTo(this->server.port());
      first.send("a" + name + "\r\n");
      second.send("b" + name + "\r\n");
      ASSERT_TRUE(this->server.received.gets("a" + name));
      ASSERT_TRUE(this->server.received.gets("b" + name));
      const RawSocket third = RawSocket::connectTo(this->server.port());
      EXPECT_TRUE(eventually([&] { return third.ended(); }));
    }
    ASSERT_TRUE(eventually([&] {
      return this->log.infos("remain connection counts") == 2U * (static_cast<unsigned>(round) + 1);
    }));
  }
}

TYPED_TEST(SafetyLimits, PeerTimeoutIsSetOnTheSockets) {
  for (const int timeoutMs : {0, 5000}) {
    TypeParam timed;
    this->options.peerTimeoutMs = timeoutMs;
    ASSERT_TRUE(timed.start(this->options));
    const RawSocket client = RawSocket::connectTo(timed.port());
    client.send("in\r\n");
    ASSERT_TRUE(timed.received.gets("in"));
    const int fd = client.twin();
    EXPECT_EQ(optionOf(fd, SOL_SOCKET, SO_KEEPALIVE), timeoutMs > 0);
    EXPECT_EQ(optionOf(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), timeoutMs);
    EXPECT_EQ(optionOf(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    const int idle = optionOf(fd, IPPROTO_TCP, TCP_KEEPIDLE);
    const int probes = optionOf(fd, IPPROTO_TCP, TCP_KEEPCNT);
    if (timeoutMs > 0) {
      EXPECT_LE(idle + probes, timeoutMs / 1000);
    }
  }
}

TYPED_TEST(SafetyLimits, SmallTextsLeaveAtOnce) {
  ASSERT_TRUE(this->server.start());
  const RawSocket client = RawSocket::connectTo(this->server.port());
  ASSERT_TRUE(this->server.links.gets("on"));
  EXPECT_EQ(optionOf(client.twin(), IPPROTO_TCP, TCP_NODELAY), 1);
}

TYPED_TEST(SafetyLimits, DroppedTextsAreCounted) {
  constexpr std::size_t kTexts = 300;
  this->options.maxQueuedBytes = 5000;
  ASSERT_TRUE(this->server.start(this->options));
  const RawSocket client = RawSocket::connectTo(this->server.port());
  ASSERT_TRUE(this->server.links.gets("on"));
  for (std::size_t i = 0; i < kTexts; ++i) this->server.broadcast(std::string(98, 'b'));
  this->server.broadcast("last");
  std::string got;
  ASSERT_TRUE(eventually([&] {
    got += client.read(100, 10);
    return got.size() > 6 && got.compare(got.size() - 6, 6, "last\r\n") == 0;
  }));
  const std::size_t dropped = kTexts - got.size() / 100;
  EXPECT_GT(dropped, 0U);
  const auto reported = [&] { return this->log.sumAfter("oldest texts dropped: "); };
  EXPECT_TRUE(eventually([&] { return reported() == dropped; })) << dropped << ", " << reported();
}

TEST(SafetyLimitsOfStateServer, LoseNothingThatWasReceived) {
  constexpr int kTexts = 200;
  for (const std::size_t limit : {std::size_t{2000}, std::numeric_limits<std::size_t>::max()}) {
    StateServer server;
    ServerSafetyOptions options;
    options.maxQueuedBytes = limit;
    ASSERT_TRUE(server.start(options));
    const RawSocket client = RawSocket::connectTo(server.port());
    for (int i = 0; i < kTexts; ++i) client.send(std::to_string(i) + "\r\n");
    EXPECT_TRUE(eventually([&] { return server.received.all().size() == kTexts; })) << limit;
  }
}

TEST(SafetyLimitsOfClients, GiveUpALinkThatHasEnded) {
  const test::LogCapture log;
  RawListener door;
  ClientSafetyOptions options;
  options.peerTimeoutMs = 5000;
  test::StateClient state(options);
  state.client->setHeartbeatMode(false);
  test::CommandClient command(options);
  test::AnyClient* const clients[] = {&state, &command};
  for (test::AnyClient* client : clients) {
    ASSERT_EQ(client->connect(door.port()), 1);
    {
      const RawSocket server = door.accept();
      EXPECT_EQ(optionOf(server.twin(), IPPROTO_TCP, TCP_USER_TIMEOUT), 5000);
    }
    EXPECT_TRUE(eventually([&] { return !client->connected(); }));
  }
  EXPECT_EQ(log.errors("heartbeat stop"), 0U);  // not for its silence
}

// A signal is no sign of a peer that does not read.
TEST(SafetyLimitsOfClients, SignalsCutNoLongSend) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  RawListener door;
  brix::TcpClient client("127.0.0.1", door.port());
  ClientSafetyOptions options;
  options.peerTimeoutMs = 20000;
  client.setSafetyOptions(options);
  ASSERT_EQ(client.connectServer(1), 1);
  const RawSocket server = door.accept();
  const std::string text(16 << 20, 't');
  std::atomic<bool> sent{false};
  std::thread sender([&] {
    client.sendMsg(text);
    sent = true;
  });
  std::size_t got = 0;
  while (got < text.size()) {
    if (!sent) pthread_kill(sender.native_handle(), SIGUSR1);
    const std::size_t more = server.read(65536).size();
    if (more == 0) break;
    got += more;
  }
  sender.join();
  EXPECT_EQ(got, text.size());
}

}  // namespace
