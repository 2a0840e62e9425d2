#include "tcp_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>
#include <sstream>

#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_server_sender.h"
#include "texts.h"

namespace test {
namespace {

using namespace std::string_literals;
using List = std::vector<std::string>;
constexpr auto sender = TcpServerBroadcaster::getInstance;

/// A server, with the test as its listener.
struct TcpServerTest : testing::Test, brix::iRecieveListener {
  TcpServerTest() { sender(), start(0); }
  ~TcpServerTest() override { start(-1); }
  void start(int wanted) {
    if (server) server->quit();
    server = std::make_unique<brix::TcpServer>(wanted);
    server->attachListener(this);
    if (wanted >= 0 && server->waitUntilListening(kDeadlineMs)) port = server->listeningPort();
  }
  void onReceive(const std::string& msg) override { msgs.add(msg), onMsg(); }
  RawSocket connect() const { return RawSocket::connectTo(port); }
  bool logged(const std::string& line, std::size_t count = 1) const {
    return eventually([&] { return log.infos(line) == count; });
  }
  LogCapture log;
  Texts msgs;
  std::function<void()> onMsg = [] {};
  std::unique_ptr<brix::TcpServer> server;
  int port = 0;
};

TEST_F(TcpServerTest, LogsTheLivesOfFourClientsAndLetsTheFifthWait) {
  EXPECT_FALSE(server->sendMsgs("lost"));
  std::vector<RawSocket> clients;
  for (const char* line : {"total count 1", "total count 2", "total count 3", "total count 4"}) {
    clients.push_back(connect());
    EXPECT_TRUE(logged(line));
  }
  const RawSocket fifth = connect();
  EXPECT_FALSE(eventually([&] { return log.infos("Waiting") > 4; }, 50));
  clients[0].close();
  EXPECT_TRUE(logged("counts 2\n") && logged("current connection counts 3", 2));
  clients[1].send("q");
  EXPECT_TRUE(logged("counts 1\n"));
  clients[2].reset();
  EXPECT_TRUE(logged("counts -1\n") && logged("remain listener count 2") && logged("Waiting", 6));
  server->quit();
  std::istringstream expected(
      "socket id |TCPServer Waiting for client on port 0...|" + std::string(49, '*') +
      "|connection from (127.0.0.1 , |current connection counts 1, unique id |****|sender attach|"
      "Waiting|counts 2, unique id |Received warning,recv function return 0 0.| quit, remain "
      "connection counts 2\n|recieve quit command|counts 1\n|recieve error|counts -1\n|recieve "
      "quit cmd|accept connection failed! errno = -1|server quit");
  std::string part;
  std::getline(expected, part, '|');
  for (const auto& text : log.texts()) {
    if (text.find(part) != text.npos) std::getline(expected, part, '|');
  }
  EXPECT_TRUE(expected.fail()) << part;
}

TEST_F(TcpServerTest, CutsChunksIntoMessagesForEveryListener) {
  onMsg = [] { throw 7; };
  server->attachListener(nullptr);
  server->attachListener(this);
  const std::string x(8192, 'x');
  const std::pair<List, List> rows[] = {{{"a\r\n\r\nb\r\n"}, {"a", "b"}},
                                        {{"ab", "c\r", "\nq"}, {"abc"}},
                                        {{"Q\r\n"}, {"qQ"}},  // the clients share one buffer
                                        {{"q\r\n", "exit\r\n"}, {"q", "exit"}},
                                        {{"q", "late\r\n"}, {}},
                                        {{"Q\0\r\n"s, "late\r\n"}, {}},
                                        {{"n\0lost\r\n"s, "\r\n"}, {"n"}},
                                        {{x, x, "\r\n"}, {x + x}}};
  List expected;
  for (const auto& [chunks, heard] : rows) {
    auto [ours, theirs] = RawSocket::pair(SOCK_SEQPACKET);  // keeps chunks apart
    for (const std::string& chunk : chunks) theirs.send(chunk);
    theirs.close();
    server->tcpCommunication(ours.take());
    for (const std::string& msg : heard) expected.insert(expected.end(), 2, msg);
    EXPECT_EQ(msgs.all(), expected);
  }
  EXPECT_EQ(log.errors("onReceive exception: "), expected.size());
}

TEST_F(TcpServerTest, NewClientsDoNotGetTheNumberOfOneThatIsStillRegistered) {
  const RawSocket leaving = connect();
  EXPECT_TRUE(logged("total count 1"));
  std::promise<void> release;
  sender().attachListener([held = release.get_future().share()](auto&&...) { held.wait(); }, 9999);
  EXPECT_TRUE(server->sendMsgs("text") && leaving.read(4) == "text");
  shutdown(leaving.fd(), SHUT_WR);
  EXPECT_TRUE(eventually([&] { return leaving.ended(); }));
  const RawSocket next = connect();
  EXPECT_TRUE(logged("current connection counts", 2));
  release.set_value();
  sender().detachListener(9999);
  EXPECT_TRUE(logged("remain listener count ", 2) && logged("tcp sender attach", 3));
  EXPECT_TRUE(server->sendMsgs("text") && next.read(4) == "text");
}

TEST_F(TcpServerTest, MayBeStoppedAndDestroyedByItsListeners) {
  enum Where { Arrival, Leaving, Message };
  for (int round = 0; round < 6; ++round) {
    start(0);
    std::atomic<bool> stopped{false};
    const auto stopAt = [&](int where) {
      if (where != round % 3 || stopped) return;
      if (round < 3) server->quit();
      if (round >= 3) server.reset();
      stopped = true;
    };
    server->attachConnectionListener([=](bool any) { stopAt(any ? Arrival : Leaving); });
    onMsg = [=] { stopAt(Message); };
    RawSocket client = connect();
    client.send("a\r\nb\r\n");
    if (round % 3 == Leaving) client.close();
    EXPECT_TRUE(eventually([&] { return stopped.load(); }));
    EXPECT_LE(timedMs([&] { start(-1); }), kStopBoundMs);
    EXPECT_THROW(connect(), std::runtime_error);
    client.close();
    EXPECT_TRUE(eventually([] { return sender().listenerCount() == 0; }));
    sender().setConnectionListener({});
  }
}

TEST_F(TcpServerTest, AListenerThatEndsItsThreadEndsItsClient) {
  const Census census{};
  onMsg = [] { pthread_exit(nullptr); };
  for (int i = 1; i <= 5; ++i) {  // also the count of connections falls again
    const RawSocket client = connect();
    client.send("m\r\n");
    EXPECT_EQ(client.read(1), "");
  }
  EXPECT_TRUE(eventually([] { return sender().listenerCount() == 0; }) && census.grownBy(0, 0));
}

TEST_F(TcpServerTest, OpensOnePortOnceAndEndsClientsThatGetNoThread) {
  const RawListener busy;
  for (const int wrong : {busy.port(), 70000}) start(wrong);
  threadThatFails = 1;
  start(0), server->createSocket(0);
  EXPECT_TRUE(eventually([&] { return (port = server->listeningPort()) != 0; }));
  threadThatFails = 1;
  EXPECT_EQ(connect().read(1), "");
  connect().send("m\r\n");
  EXPECT_TRUE(msgs.gets("m") && logged("current connection counts 1,"));
  server->createSocket(0), server->quit();
  const Bystanders others;
  for (int i = 0; i < 2; ++i) brix::TcpServer(-1).quit(), server->quit();
  server->createSocket(port);  // is closed at once
  EXPECT_TRUE(logged("server quit", 3) && logged("Unable to bind", 2));
  start(-1);
  EXPECT_TRUE(others.untouched());
  EXPECT_EQ(log.errors("start thread failed, "), 2u);
  EXPECT_EQ(log.errors("tcp server was started already, port 0 not opened"), 1u);
}

TEST_F(TcpServerTest, AFailedSendEndsItsConnectionAndNothingElse) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto fails = [&] {
    auto [ours, theirs] = RawSocket::pair();
    const int fds[] = {ours.take(), theirs.fd()};
    const auto served = std::async([&] { server->tcpCommunication(fds[0]); });
    eventually([&] { return log.infos(" running...") == 1; });
    for (const char* text : {"text", ""}) server->broadcastData(fds[0], text);
    bool ok = theirs.read(4) == "text" && log.errors("Send warning,send function return 0 0.") == 1;
    shutdown(theirs.fd(), SHUT_RD);
    for (const int fd : fds) server->broadcastData(fd, "x");
    const auto closed = [&] { return fcntl(fds[0], F_GETFD) + fcntl(fds[1], F_GETFD) == -2; };
    return ok && log.errors("send error,close the socket.") == 2 && eventually(closed);
  };
  EXPECT_EXIT(endProcessAfter(fails), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace test
