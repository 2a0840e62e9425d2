// Direct delivery beside clients that do not read and listeners that end things, and what waiting
// costs.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <ctime>
#include <future>

#include "delivery_link.h"
#include "log_capture.h"
#include "raw_socket.h"

namespace {

using namespace test;
using brix::DeliveryMode;

constexpr int kLargeTexts = 300;  // more than any socket takes

std::string large(int i) {
  return std::to_string(1000 + i) + std::string(100000, '.');
}

void expectLarge(const RawSocket& socket, int i) {
  ASSERT_EQ(socket.read(large(i).size() + 2), large(i) + "\r\n");
}

// A client that does not read holds nobody up; what it did not take waits whole and in order.
TEST(DirectDelivery, OutlastsAClientThatDoesNotRead) {
  Server server(kDirect);
  server.open();
  const RawSocket slow = RawSocket::connectTo(server.port);
  const RawSocket quick = RawSocket::connectTo(server.port);
  ASSERT_TRUE(server.has(2));
  for (int i = 0; i < kLargeTexts; ++i) server.server->sendMsg(large(i)), expectLarge(quick, i);
  for (int i = 0; i < kLargeTexts; ++i) expectLarge(slow, i);
}

TEST(DirectDelivery, KeepsTheSafetyOptionsWithAClientThatDoesNotRead) {
  LogCapture log;
  brix::ServerSafetyOptions options;
  options.maxQueuedBytes = 1000000;
  Server server(kDirect), strict(kDirect);
  server.open(options);
  options.maxQueuedBytes = 0;
  options.peerTimeoutMs = 300;
  strict.open(options);
  const RawSocket slow = RawSocket::connectTo(server.port);
  const RawSocket silent = RawSocket::connectTo(strict.port);
  ASSERT_TRUE(server.has(1) && strict.has(1));
  for (int i = 0; i < kLargeTexts; ++i) {
    for (Server* each : {&server, &strict}) each->server->sendMsg(large(i));
  }
  EXPECT_GE(log.errors("oldest texts dropped"), 1U);
  int texts = 0;
  for (int last = -1; last < kLargeTexts - 1; ++texts) {
    const std::string text = slow.read(large(0).size() + 2);
    const int i = text.empty() ? kLargeTexts : std::stoi(text) - 1000;
    ASSERT_GT(i, last);
    ASSERT_EQ(text, large(i) + "\r\n");
    last = i;
  }
  EXPECT_LT(texts, kLargeTexts);
  EXPECT_TRUE(eventually([&] {
    return log.sumAfter("oldest texts dropped: ") == static_cast<std::size_t>(kLargeTexts - texts);
  }));
  EXPECT_TRUE(strict.links.gets("off"));
}

TEST(DirectDelivery, OfAClientFinishesWhatItsServerDidNotTakeAtOnce) {
  const RawListener listener;
  Client client(kDirect);
  ASSERT_EQ(client.connect(listener.port()), 1);
  const RawSocket peer = listener.accept();
  for (int i = 0; i < kLargeTexts; ++i) client.send(large(i));
  for (int i = 0; i < kLargeTexts; ++i) expectLarge(peer, i);
  client.send("end");
  client.client->sendMsg("raw", 3);
  EXPECT_EQ(peer.read(8), "end\r\nraw");
}

// The unit thread waits for the listener lock, and the listener for the unit thread's end.
TEST(DirectDelivery, OfAClientLetsAListenerConnectAnew) {
  const RawListener listener;
  std::promise<const RawSocket*> accepted;
  std::promise<int> again;
  Client client({"", DeliveryMode::Direct, 0.5});
  client.onMsg = [&, first = true](const auto&) mutable {
    if (!std::exchange(first, false)) return;
    const RawSocket& peer = *accepted.get_future().get();
    const int socket = peer.twin();
    client.client->setRecvRate(0);
    peer.send("second\r\n");
    int unread = 1;
    eventually([&] { return ioctl(socket, FIONREAD, &unread) != 0 || unread == 0; });
    client.disconnect();
    again.set_value(client.connect(listener.port()));
  };
  ASSERT_EQ(client.connect(listener.port()), 1);
  const RawSocket peer = listener.accept();
  accepted.set_value(&peer);
  peer.send("first\r\n");
  std::future<int> result = again.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(result.get(), 1);
  listener.accept().send("third\r\n");
  EXPECT_TRUE(client.received.gets("third"));
}

TEST(DirectDelivery, EndsTheClientWhoseListenerEndsTheThread) {
  Server server(kDirect);
  server.onMsg = [](const auto&) { pthread_exit(nullptr); };
  server.open();
  const RawSocket client = RawSocket::connectTo(server.port);
  ASSERT_TRUE(server.has(1));
  client.send("text\r\n");
  EXPECT_TRUE(server.links.gets("off"));
  EXPECT_LT(timedMs([&] { server.server->terminateServer(); }), kStopBoundMs);
}

struct Cost {
  double cpuMs;
  long wakeUps;
};

/// @return what the process spends in a second
Cost costOfASecond() {
  const auto now = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return Cost{static_cast<double>(std::clock()) * 1000 / CLOCKS_PER_SEC, usage.ru_nvcsw};
  };
  const Cost before = now();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Cost after = now();
  return {after.cpuMs - before.cpuMs, after.wakeUps - before.wakeUps};
}

TEST(DeliveryIdle, AClientThatIsNotConnectedTakesNoProcessor) {
  Client client({"", DeliveryMode::Polled, 0});
  client.client->start();
  EXPECT_LT(costOfASecond().cpuMs, 500);
}

TEST(DeliveryIdle, NobodyIsTriedAgainAfterTheLastClientLeft) {
  Server server(kDirect);
  server.open();
  {
    const RawSocket slow = RawSocket::connectTo(server.port);
    ASSERT_TRUE(server.has(1));
    for (int i = 0; i < kLargeTexts; ++i) server.server->sendMsg(large(i));
  }
  ASSERT_TRUE(server.links.gets("off"));
  EXPECT_LT(costOfASecond().wakeUps, 25);  // each 32 ms otherwise
}

}  // namespace
