#include "brix_tcp_server.h"

#include <gtest/gtest.h>

#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "texts.h"

namespace {

using namespace test;
using Lines = std::vector<std::string>;

/// A server and what its listeners were told.
struct Subject {
  Subject() {
    server->registerConnectionListener([this](bool on) { links.add(on ? "on" : "off"); });
    server->registerMsgListener([this](const std::string& msg) { msgs.add(msg); });
  }
  int open(int port = 0) {
    EXPECT_EQ(server->initialize(port), 1);
    EXPECT_TRUE(server->waitUntilListening(kDeadlineMs));
    return server->listeningPort();
  }
  /// Connects and waits until the server knows.
  RawSocket client() const {
    const std::size_t before = links.count("on");
    RawSocket socket = RawSocket::connectTo(server->listeningPort());
    EXPECT_TRUE(eventually([&] { return links.count("on") > before; }));
    return socket;
  }

  Texts links;
  Texts msgs;
  std::unique_ptr<brix::BrixTcpServer> server = std::make_unique<brix::BrixTcpServer>();
};

struct BrixTcpServerTest : testing::Test {
  LogCapture log;
};

TEST_F(BrixTcpServerTest, LogsItsStepsAndNumbersItsClients) {
  {
    Subject subject;
    subject.open();
    subject.client().close();
    EXPECT_TRUE(eventually([&] { return subject.links.all().size() == 2; }));
    RawSocket second = subject.client();
    subject.client().close();
    EXPECT_TRUE(eventually([&] { return log.infos("remain connection counts 1") == 1; }));
    second.close();
    EXPECT_TRUE(eventually([&] { return log.infos("remain connection counts 0") == 2; }));
    EXPECT_TRUE(eventually([&] { return log.infos("tcp server waiting") == 4; }));
    subject.server->terminateServer();
    EXPECT_TRUE(subject.server->releaseAble());
    EXPECT_EQ(subject.links.all(), (Lines{"on", "off", "on", "on", "off"}));
  }
  Lines lines;
  for (std::string line : log.texts(true)) {
    const std::size_t number = line.find_first_of("0123456789", line.find(" base socket"));
    if (line.find(" base socket") != line.npos) {
      line.replace(number, line.find_first_not_of("0123456789", number) - number, "N");
    }
    lines.push_back(line);
  }
  std::sort(lines.begin(), lines.end());
  const std::string waits = "INFO tcp server waiting for client on port 0, base socket N...";
  const std::string terminated = "INFO tcp server terminated, base socket id N";
  EXPECT_EQ(lines,
            (Lines{"INFO socket 1 quit, remain connection counts 0",
                   "INFO socket 2 quit, remain connection counts 0",
                   "INFO socket 3 quit, remain connection counts 1", "INFO tcp server exit",
                   "INFO tcp server init, port 0", "INFO tcp server recieve msg thread exit",
                   "INFO tcp server recieve msg thread on", "INFO tcp server send msg thread exit",
                   "INFO tcp server send msg thread on", terminated, terminated, waits, waits,
                   waits, waits}));
}

TEST_F(BrixTcpServerTest, KeepsMessagesForAClientAndCountsABacklogDown) {
  Subject subject;
  subject.open();
  std::string sent;
  for (int i = 0; i < 150; ++i) {
    subject.server->sendMsg(std::to_string(i));
    subject.server->recieveMsgCallback(std::to_string(i));
    sent += std::to_string(i) + "\r\n";
  }
  const RawSocket first = subject.client();
  EXPECT_EQ(first.read(sent.size()), sent);
  EXPECT_TRUE(eventually([&] { return subject.msgs.all().size() == 150; }));
  EXPECT_EQ(subject.msgs.all().back(), "149");
  for (const std::string pump : {"send", "recv"}) {
    const std::string line = "Communication [" + pump + "] delay detected, delay ";
    EXPECT_EQ(log.errors(line), 49u);
    for (int i = 101; i < 150; ++i) EXPECT_EQ(log.errors(line + std::to_string(i)), 1u) << i;
  }
  const RawSocket second = subject.client();
  const RawSocket third = subject.client();
  subject.server->sendMsg(std::string("\0x", 2));
  for (const auto* client : {&first, &second, &third}) {
    EXPECT_EQ(client->read(4), std::string("\0x\r\n", 4));
  }
}

TEST_F(BrixTcpServerTest, DeliversOneMessageAPeriodAndDropsThoseLeftBehind) {
  Subject subject;
  subject.server->setSendRate(150);
  subject.server->setRecvRate(150);
  subject.open();
  {
    const RawSocket first = subject.client();
    subject.server->sendMsg("first");
    EXPECT_EQ(first.read(7), "first\r\n");
    subject.server->sendMsg("stale");
    for (int i = 0; i < 3; ++i) subject.server->recieveMsgCallback("stale" + std::to_string(i));
  }
  EXPECT_TRUE(eventually([&] { return subject.links.count("off") == 1; }));
  const RawSocket second = subject.client();
  const auto start = Clock::now();
  subject.server->sendMsg("fresh");
  second.send("fresh\r\nlast\r\n");
  EXPECT_EQ(second.read(7), "fresh\r\n");
  EXPECT_TRUE(eventually([&] { return subject.msgs.count("last") == 1; }));
  EXPECT_GE(elapsedMs(start), 150);
  EXPECT_EQ(subject.msgs.count("stale2"), 0u);
}

TEST_F(BrixTcpServerTest, ReportsAPortThatCannotBeOpened) {
  const RawListener busy;
  for (const int port : {busy.port(), -1, 65536, 70000}) {
    Subject subject;
    EXPECT_EQ(subject.server->initialize(port), 1);
    EXPECT_FALSE(subject.server->waitUntilListening(kDeadlineMs)) << port;
    EXPECT_FALSE(subject.server->releaseAble());
    subject.server->terminateServer();
    EXPECT_FALSE(subject.server->releaseAble());
  }
  EXPECT_EQ(log.infos("Unable to bind"), 4u);
  EXPECT_EQ(log.infos("wait_connection_thread not standby"), 8u);
}

TEST_F(BrixTcpServerTest, RunsOnceAndClosesEachDescriptorOnce) {
  Subject subject;
  EXPECT_FALSE(subject.server->waitUntilListening(0));
  const int port = subject.open();
  EXPECT_EQ(subject.server->initialize(0), 1);
  EXPECT_EQ(log.errors("tcp server runs already, port 0 not opened"), 1u);
  EXPECT_EQ(subject.server->listeningPort(), port);
  const RawSocket client = subject.client();
  subject.client().close();
  subject.server->terminateServer();
  EXPECT_TRUE(client.ended());
  EXPECT_EQ(subject.server->listeningPort(), 0);
  EXPECT_EQ(subject.server->initialize(port), 1);  // stays stopped
  EXPECT_FALSE(subject.server->waitUntilListening(kDeadlineMs));
  subject.server->terminateServer();
  EXPECT_THROW(RawSocket::connectTo(port), std::runtime_error);
  const Bystanders others;
  subject.server->terminateServer();
  subject.server.reset();
  EXPECT_TRUE(others.untouched());
  Subject().open(port);  // a restarted controller gets its port back at once
}

TEST_F(BrixTcpServerTest, OptionsThatAreBeingSetPreventNoStart) {
  for (int round = 0; round < 20; ++round) {
    Subject subject;
    std::atomic<bool> setting{false}, begun{false};
    std::thread other([&] {
      while (subject.server->setSafetyOptions({}) && !begun) setting = true;
    });
    EXPECT_TRUE(eventually([&] { return setting.load(); }));
    subject.open();
    begun = true;
    other.join();
  }
}

TEST_F(BrixTcpServerTest, AStopTellsTheEndOfEveryClient) {
  for (const std::size_t clients : {1u, 3u, 1u, 3u}) {
    Subject subject;
    subject.open();
    std::vector<RawSocket> sockets;
    while (sockets.size() < clients) sockets.push_back(subject.client());
    const std::size_t before = log.infos("remain connection counts");
    subject.server->terminateServer();
    EXPECT_EQ(subject.links.count("off"), 1u);
    EXPECT_EQ(log.infos("remain connection counts") - before, clients);
  }
}

TEST_F(BrixTcpServerTest, OutlivesEveryThreadThatCannotBeCreated) {
  const std::string missing[] = {"wait_connection_thread", "send msg thread", "recieve msg thread"};
  for (int failing = 1; failing <= 5; ++failing) {  // the fourth is the monitor, then a handler
    Subject subject;
    threadThatFails = failing;
    EXPECT_EQ(subject.server->initialize(0), 1);
    EXPECT_EQ(subject.server->waitUntilListening(kDeadlineMs), failing != 1);
    if (failing == 5) {
      EXPECT_EQ(RawSocket::connectTo(subject.server->listeningPort()).read(1), "");
      EXPECT_FALSE(subject.client().ended());
      EXPECT_TRUE(eventually([&] { return subject.links.count("off") == 1; }));  // none is left
    }
    EXPECT_EQ(log.errors("start thread failed, "), static_cast<std::size_t>(failing));
    EXPECT_LE(timedMs([&] { subject.server->terminateServer(); }), kStopBoundMs);
    EXPECT_EQ(subject.server->releaseAble(), failing > 3);
    if (failing <= 3) {
      EXPECT_EQ(log.infos(missing[failing - 1] + " not standby"), 1u);
    }
  }
}

}  // namespace
