// What holds in every delivery mode, and what sets the modes apart.

#include <gtest/gtest.h>

#include <future>
#include <random>
#include <set>

#include "delivery_link.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "wake_signal.h"

namespace {

using namespace test;
using brix::DeliveryMode;

const Setting kSettings[] = {{"Default", DeliveryMode::Polled, 0.5},
                             {"RateZero", DeliveryMode::Polled, 0},
                             {"WakeOnData", DeliveryMode::WakeOnData, 0.1},
                             {"WakeOnDataRateZero", DeliveryMode::WakeOnData, 0},
                             kDirect,
                             {"DirectPaced", DeliveryMode::Direct, 0.1}};

const DeliveryMode kModes[] = {DeliveryMode::Polled, DeliveryMode::WakeOnData,
                               DeliveryMode::Direct};

struct DeliveryModeTest : testing::TestWithParam<Setting> {
  LogCapture log;
};
INSTANTIATE_TEST_SUITE_P(Modes, DeliveryModeTest, testing::ValuesIn(kSettings),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(DeliveryModeTest, TextsComeOnceInOrderAndOnTheThreadPromised) {
  constexpr int kSenders = 4, kTexts = 150;
  Server server(GetParam());
  std::set<std::thread::id> readers;  // listeners run one at a time
  Texts names;
  server.onMsg = [&](const std::string& msg) {
    readers.insert(std::this_thread::get_id());
    server.server->sendMsg(msg);
  };
  Client clients[] = {Client(GetParam()), Client(GetParam())};
  clients[0].onMsg = [&](const auto&) { names.add(threadName()); };
  server.open(clients[0]);
  ASSERT_EQ(clients[1].connect(server.port), 1);
  ASSERT_TRUE(server.has(2));
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&client = clients[s % 2], s] {
      for (int i = 0; i < kTexts; ++i) client.send(std::to_string(s) + ": " + std::to_string(i));
    });
  }
  for (std::thread& sender : senders) sender.join();
  for (const Client& client : clients) {
    EXPECT_TRUE(eventually([&] { return client.received.all().size() >= kSenders * kTexts; }));
    int next[kSenders] = {};
    for (const std::string& text : client.received.all()) {
      EXPECT_EQ(text.substr(3), std::to_string(next[text[0] - '0']++));
    }
    EXPECT_EQ(std::count(std::begin(next), std::end(next), kTexts), kSenders);
  }
  EXPECT_EQ(clients[0].received.all(), clients[1].received.all());
  for (Client& client : clients) client.disconnect();
  server.server->terminateServer();
  const bool direct = GetParam().mode == DeliveryMode::Direct && GetParam().rateMs == 0;
  EXPECT_EQ(readers.size(), direct ? 2U : 1U);
  EXPECT_EQ(names.all().back() == "com_client", direct);
}

TEST_P(DeliveryModeTest, StopsSoonFromEverywhere) {
  for (const int row : {0, 1, 2, 3}) {
    SCOPED_TRACE(row);
    const bool inListener = row % 2 != 0, destroy = row > 1;
    const Census census;
    Server server(GetParam());
    Client client(GetParam());
    std::atomic<double> serverMs{-1}, clientMs{-1};
    const auto stopServer = [&](const auto&) {
      if (inListener && serverMs >= 0) return;
      serverMs =
          timedMs([&] { destroy ? server.server.reset() : server.server->terminateServer(); });
    };
    const auto stopClient = [&](const auto&) {
      clientMs = timedMs([&] { destroy ? client.client.reset() : client.disconnect(); });
    };
    if (inListener) server.onMsg = stopServer, client.onMsg = stopClient;
    server.open(client);
    const RawSocket other = RawSocket::connectTo(server.port);
    ASSERT_TRUE(server.has(2));
    for (int i = 0; i < 1000; ++i) server.server->sendMsg("text");
    if (!inListener) stopClient(0);
    EXPECT_TRUE(eventually([&] { return clientMs >= 0; }));
    other.send(repeated("text\r\n", 1000));
    if (!inListener) stopServer(0);
    EXPECT_TRUE(eventually([&] { return serverMs >= 0; }));
    EXPECT_LT(clientMs, kStopBoundMs);
    EXPECT_LT(serverMs, kStopBoundMs);
    server.server.reset();
    client.client.reset();
    EXPECT_TRUE(census.threadsGrownBy(0));
  }
}

// A lost wake-up leaves one text behind, for ever: the next is sent when the one before has come.
TEST_P(DeliveryModeTest, NoWakeUpIsLost) {
  constexpr int kRounds = 1500;
  Server server(GetParam());
  Client client(GetParam());
  std::atomic<int> asked{0}, answered{0};
  server.onMsg = [&](const std::string& msg) { ++asked, server.server->sendMsg(msg); };
  client.onMsg = [&](const auto&) { ++answered; };
  server.open(client);
  std::minstd_rand random(1);
  for (int i = 1; i <= kRounds; ++i) {
    client.send("text");
    const auto sent = Clock::now();
    while (answered < i && elapsedMs(sent) < kDeadlineMs) std::this_thread::yield();
    ASSERT_EQ(answered, i) << asked;
    for (auto gap = random() % 4096; gap > 0; --gap) answered.load();
  }
}

// The same for the very mechanism, whose gap to be hit is a few instructions wide: the changes of a
// burst keep the consumer from falling asleep before the last one.
TEST(WakeSignal, MissesNoChangeOfARacingProducer) {
  constexpr int kBursts = 50000, kChanges = 20;
  brix::StopSignal stop;
  brix::WakeSignal signal(stop);
  std::atomic<int> made{0}, taken{0};
  std::thread consumer([&] {
    for (int seen = 0; !stop.requested(); taken = seen = made) {
      signal.wait([&] { return made > seen; });
    }
  });
  std::minstd_rand random(2);
  const auto start = Clock::now();
  for (int i = 0; i < kBursts && taken == made; ++i) {
    for (int change = 0; change < kChanges; ++change) {
      for (auto gap = random() % 256; gap > 0; --gap) taken.load();
      ++made;
      signal.wake();
    }
    while (taken < made && elapsedMs(start) < 3 * kDeadlineMs) std::this_thread::yield();
  }
  EXPECT_EQ(taken, kBursts * kChanges);
  stop.request();
  consumer.join();
}

TEST(DeliveryPace, IsOneMessageAPeriodAndDirection) {
  for (const DeliveryMode mode : kModes) {
    const Setting setting{"", mode, 15};
    Server server(setting);
    std::atomic<double> lastMs{0};
    const auto start = Clock::now();
    server.onMsg = [&](const auto&) { lastMs = elapsedMs(start); };
    server.open();
    const RawSocket client = RawSocket::connectTo(server.port);
    ASSERT_TRUE(server.has(1));
    const double beginMs = elapsedMs(start);
    for (int i = 0; i < 6; ++i) server.server->sendMsg("x");
    client.send(repeated("y\r\n", 6));
    EXPECT_EQ(client.read(18).size(), 18U);
    EXPECT_GE(elapsedMs(start), beginMs + 5 * setting.rateMs);
    EXPECT_TRUE(eventually([&] { return server.msgs.count("y") == 6; }));
    server.server->terminateServer();
    EXPECT_GE(lastMs, beginMs + 5 * setting.rateMs);
  }
}

constexpr double kLongMs = 600000;

// From a long rate to 0 and back, while everybody waits.
TEST(DeliveryRate, ToZeroAndFromZeroTakesEffectAtOnce) {
  for (const DeliveryMode mode : kModes) {
    SCOPED_TRACE(static_cast<int>(mode));
    const Setting quick{"", mode, 0.5};
    Server server(quick);
    Client client(quick);
    const auto set = [&](double ms) {
      client.client->setSendRate(ms), client.client->setRecvRate(ms);
      server.server->setSendRate(ms), server.server->setRecvRate(ms);
    };
    server.onMsg = [&](const std::string& msg) { server.server->sendMsg(msg); };
    server.open(client);
    set(kLongMs);
    client.send("first");
    set(0);
    EXPECT_TRUE(client.received.gets("first"));
    client.send("second");
    EXPECT_TRUE(client.received.gets("second"));
    set(kLongMs);
    for (const char* text : {"third", "fourth"}) client.send(text);  // one may go at once
    EXPECT_FALSE(eventually([&] { return client.received.count("fourth") > 0; }, 50));
    set(0);
    EXPECT_TRUE(client.received.gets("fourth"));
    EXPECT_EQ(client.received.all().size(), 4U);
  }
}

TEST(DeliveryRate, ZeroTellsOfABacklogOnceASecond) {
  LogCapture log;
  Server server(kSettings[1]);
  std::promise<void> entered, released;
  server.onMsg = [&, first = true](const auto&) mutable {
    if (std::exchange(first, false)) entered.set_value(), released.get_future().wait();
  };
  server.open();
  const RawSocket client = RawSocket::connectTo(server.port);
  client.send("x\r\n");
  ASSERT_TRUE(ready(entered));
  const auto start = Clock::now();
  client.send(repeated("message\r\n", 20000));
  released.set_value();
  EXPECT_TRUE(eventually([&] { return server.msgs.count("message") == 20000; }));
  EXPECT_GE(log.errors("[recv] delay detected, delay"), 1U);
  EXPECT_LE(log.errors("[recv] delay detected, delay"), 1 + elapsedMs(start) / 1000);
}

TEST(DeliveryMode, IsFixedAtTheStartAndForAConnection) {
  const LogCapture log;
  Texts names;
  Server server(kDirect);
  Client client(kDirect);
  client.onMsg = [&](const auto&) { names.add(threadName()); };
  server.open(client);
  server.server->setDeliveryMode(DeliveryMode::Polled);
  client.client->setDeliveryMode(DeliveryMode::Polled);
  EXPECT_EQ(log.errors("tcp server runs already, delivery mode not set"), 1U);
  server.server->sendMsg("text");
  EXPECT_TRUE(names.gets("com_client"));
  client.disconnect();
  ASSERT_EQ(client.connect(server.port), 1);
  ASSERT_TRUE(server.has(2));
  server.server->sendMsg("text");
  EXPECT_TRUE(eventually([&] { return names.all().size() == 2; }));
  EXPECT_EQ(names.count("com_client"), 1U);
}

}  // namespace
