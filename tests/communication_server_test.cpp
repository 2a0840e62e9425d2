#include "communication_server.h"

#include <gtest/gtest.h>

#include <thread>

#include "brix_tcp_server.h"
#include "fake_server.h"
#include "log_capture.h"
#include "raw_socket.h"

namespace test {
namespace {

using brix::CommunicationServer;
using List = std::vector<std::string>;

/// A server and its transport.
template <typename Transport>
struct Stage {
  Stage() { server->setServerHandle(wire); }
  LogCapture log;
  std::shared_ptr<Transport> wire = std::make_shared<Transport>();
  std::unique_ptr<CommunicationServer> server = std::make_unique<CommunicationServer>();
};

int listenOn(const Stage<brix::BrixTcpServer>& stage) {
  stage.server->initialize(0);
  EXPECT_TRUE(stage.wire->waitUntilListening(kDeadlineMs));
  return stage.wire->listeningPort();
}

TEST(CommunicationServer, SaysThatItsTransportIsMissing) {
  LogCapture log;
  CommunicationServer server;
  EXPECT_EQ(server.initialize(1), -1);
  server.setSendRate(5);
  server.setRecvRate(6);
  server.setBroadcastRate(4);
  server.terminate();
  EXPECT_EQ(log.texts(true),
            (List{"ERROR server handle not set, cannot initialize...",
                  "ERROR server handle not set, set send rate invalid...",
                  "ERROR server handle not set, set recv rate invalid...",
                  "ERROR broadcast rate 4.000000 ms less than send rate 5.000000 ms, set "
                  "invalid..."}));
  const auto wire = std::make_shared<FakeServer>();
  server.setServerHandle(wire);
  EXPECT_EQ(wire->sendRate + wire->recvRate, 1);  // rates set earlier are not passed on
  server.setRecvRate(3);
  EXPECT_EQ(wire->recvRate, 3);
  EXPECT_EQ(server.initialize(99), -99);
  server.terminate();
  EXPECT_EQ(wire->calls.all(), (List{"registerMsgListener", "registerConnectionListener",
                                     "initialize", "terminateServer"}));
}

TEST(CommunicationServer, KeepsTheSendPeriodBelowTheBroadcastPeriod) {
  const char* refusal =
      "broadcast rate 1.000000 ms less than send rate 2.000000 ms, set invalid...";
  const struct {
    double sendFirst, broadcast, newBroadcast, sendLast;  // 0: not called
    double expected;
    bool refused;
  } rows[] = {{0, 0, 0, 20, 20, false}, {0, 10, 0, 20, 5, false}, {0, 10, 0, 10, 10, false},
              {4, 4, 0, 0, 4, false},   {8, 4, 1, 0, 2, true},    {2, 10, 1, 9, 9, true},
              {2, 10, 2, 3, 1, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Stage<FakeServer> stage;
    if (row.sendFirst > 0) stage.server->setSendRate(row.sendFirst);
    if (row.broadcast > 0) stage.server->registerBroadcastFunc([] { return ""; }, row.broadcast);
    if (row.newBroadcast > 0) stage.server->setBroadcastRate(row.newBroadcast);
    if (row.sendLast > 0) stage.server->setSendRate(row.sendLast);
    EXPECT_EQ(stage.wire->sendRate, row.expected);
    EXPECT_EQ(stage.log.errors(refusal), row.refused ? 1u : 0u);
  }
}

TEST(CommunicationServer, CallsTheLatestCallbacks) {
  Stage<FakeServer> stage;
  auto& server = *stage.server;
  Texts told;
  const std::string kept = " captured by a function that is replaced while it runs";
  stage.wire->deliver("dropped");
  server.registerConnectionListener([&, kept](bool) {
    server.registerConnectionListener([&, n = 0](bool) mutable { told.add(std::to_string(++n)); });
    server.sendMsg("inside");  // the new value is not stored yet
    told.add(kept);
  });
  server.registerRawDataBroadcastFunc([&, kept](const auto& msg) {
    server.registerRawDataBroadcastFunc([n = 0](const auto& next) mutable {
      return ++n, next == "quiet" ? "" : next + std::to_string(n);
    });
    return msg + kept;
  });
  stage.wire->notify(true);
  for (const char* msg : {"a", "b", "quiet"}) stage.wire->deliver(msg);
  for (const bool value : {true, false}) stage.wire->notify(value);
  server.registerSentMsgObserver([&, kept](const auto& msg) {
    server.registerSentMsgObserver([&](const auto& next) { told.add(next); });
    told.add(msg + kept);
  });
  for (const char* msg : {"c", "quiet", "d"}) stage.wire->deliver(msg);
  server.sendMsg("");
  stage.wire->notify(true);
  server.terminate();
  server.sendMsg("e");  // to the observer only
  EXPECT_EQ(told.all(), (List{kept, "1", "2", "c3" + kept, "d5", "3", "e"}));
  EXPECT_EQ(stage.wire->sent.all(), (List{"a" + kept, "b1"}));
}

TEST(CommunicationServer, BroadcastsWhileThereIsAnAudience) {
  Stage<FakeServer> stage;
  auto& server = stage.server;
  Texts calls, seen;
  const auto rests = [&] {
    const std::size_t before = calls.all().size();
    return !eventually([&] { return calls.all().size() > before; }, 50);
  };
  server->registerBroadcastFunc([&] { return calls.add(""), "first"; }, 10);
  EXPECT_EQ(stage.log.infos("register broadcast callback, broadcast rate 10.000000 ms"), 1u);
  EXPECT_TRUE(rests());
  const auto start = Clock::now();
  stage.wire->notify(true);
  EXPECT_TRUE(eventually([&] { return stage.wire->sent.count("first") > 5; }));
  EXPECT_GE(elapsedMs(start), 50);
  stage.wire->notify(false);
  const std::size_t sent = stage.wire->sent.count("first");
  EXPECT_TRUE(rests());
  server->registerSentMsgObserver([&](const auto& msg) { seen.add(msg); });
  const auto comes = [&](const char* text) {
    return eventually([&] { return seen.count(text) > 1; });
  };
  EXPECT_TRUE(comes("first"));
  EXPECT_EQ(stage.wire->sent.count("first"), sent);

  std::atomic<bool> registered{false};
  std::thread other([&] {
    server->registerBroadcastFunc([] { return "second"; }, 1);
    registered = true;
  });
  EXPECT_FALSE(eventually([&] { return registered.load(); }, 50));
  server->terminate();
  other.join();
  EXPECT_TRUE(comes("second"));
  server->terminate();
  const auto handOver = [&] {
    return server->registerBroadcastFunc([] { return "fourth"; }, 1), "third";
  };
  server->registerBroadcastFunc(handOver, 1);
  EXPECT_TRUE(comes("fourth"));
  EXPECT_EQ(seen.count("third"), 1u);
  server->terminate();
  EXPECT_TRUE(eventually([&] { return stage.log.infos("broadcastAutomaticFunc quit...") > 2; }));
  server->registerBroadcastFunc([] { return ""; }, 60000);
  EXPECT_LT(timedMs([&] { server.reset(); }), kStopBoundMs);
}

TEST(CommunicationServer, ServesEveryClientThoughCallbacksThrow) {
  using Function = std::function<std::string()>;
  const Function throwers[] = {[]() -> std::string { throw std::runtime_error("boom"); },
                               []() -> std::string { throw 7; }, nullptr};
  for (const auto& thrower : throwers) {
    Stage<brix::BrixTcpServer> stage;
    auto& server = stage.server;
    const auto failed = [&](const std::string& what, std::size_t count) {
      return eventually([&] { return stage.log.errors(what + " exception: ") == count; });
    };
    server->registerConnectionListener(nullptr);
    server->registerRawDataBroadcastFunc(nullptr);
    if (thrower) server->registerConnectionListener([&](bool) { thrower(); });
    if (thrower) server->registerRawDataBroadcastFunc([&](const auto&) { return thrower(); });
    const int port = listenOn(stage);
    const RawSocket one = RawSocket::connectTo(port), two = RawSocket::connectTo(port);
    EXPECT_TRUE(failed("connection listener", 2));
    one.send("x\r\n");
    EXPECT_TRUE(failed("message listener", 1));
    server->registerRawDataBroadcastFunc([](const auto& msg) { return msg; });
    two.send("good\r\n");
    for (const RawSocket* client : {&one, &two}) EXPECT_EQ(client->read(6), "good\r\n");
    const auto broadcast = [&, n = 0]() mutable { return ++n == 1 ? thrower() : "fine"; };
    server->registerBroadcastFunc(broadcast, 1);
    EXPECT_EQ(one.read(6), "fine\r\n");
    EXPECT_TRUE(failed("broadcast function", 1));
  }
}

TEST(CommunicationServer, TransportMayOutliveTheServer) {
  Stage<FakeServer> stage;
  auto& server = stage.server;
  const auto first = stage.wire, second = std::make_shared<FakeServer>();
  server->setServerHandle(second);
  server->registerRawDataBroadcastFunc([](const auto& msg) { return msg; });
  first->notify(true);
  first->deliver("the first keeps its registration");
  EXPECT_EQ(second->sent.all().size(), 1u);
  std::atomic<int> calls{0};
  std::atomic<bool> end{false};
  std::thread traffic([&] {
    for (int i = 0; !end; ++i) {
      const auto& wire = i % 2 != 0 ? first : second;
      wire->deliver("x");
      wire->notify(i % 3 != 0);
    }
  });
  for (int i = 0; i < 300 || calls < 300; ++i) {
    const auto called = [&, kept = std::to_string(i) + ", long enough to stand on the heap"](auto) {
      return ++calls, kept;
    };
    server->setServerHandle(i % 2 != 0 ? first : second);
    server->registerRawDataBroadcastFunc(called);
    server->registerConnectionListener(called);
    server->registerSentMsgObserver(called);
  }
  std::atomic<int> running{0};
  const auto slow = [&](auto&&...) {
    ++running;
    eventually([] { return false; }, 20);
    return --running, "";
  };
  server->registerRawDataBroadcastFunc(slow);
  server->registerBroadcastFunc(slow, 1);
  EXPECT_TRUE(eventually([&] { return running == 2; }));
  EXPECT_LT(timedMs([&] { server.reset(); }), kStopBoundMs);
  EXPECT_FALSE(eventually([&] { return running > 0; }, 10));
  end = true;
  traffic.join();
}

enum class Place { Request, Arrival, Leaving, Broadcast, ReplySeen, BroadcastSeen };

/// A server that is ended inside one of its callbacks.
struct InnerEnd : Stage<brix::BrixTcpServer> {
  InnerEnd(int where, std::function<void(InnerEnd&)> what) : place(Place(where)), end(what) {
    server->registerConnectionListener([=](bool up) { act(up ? Place::Arrival : Place::Leaving); });
    server->registerRawDataBroadcastFunc([=](const auto& msg) {
      act(Place::Request);
      handled = true;
      if (place == Place::Broadcast) eventually([=] { return tookMs >= 0; }, 2 * kStopBoundMs);
      return msg;
    });
    server->registerBroadcastFunc([=] { return handled ? act(Place::Broadcast), "x" : ""; }, 1);
    server->registerSentMsgObserver(
        [=](const auto& msg) { act(msg == "x" ? Place::BroadcastSeen : Place::ReplySeen); });
  }
  void act(Place here) {
    if (here != place) return;
    if (tookMs >= 0 && !server) toldAfterwards = true;
    if (!done.exchange(true)) tookMs = timedMs([&] { end(*this); });
  }
  const Place place;
  const std::function<void(InnerEnd&)> end;
  std::atomic<bool> done{false}, handled{false}, toldAfterwards{false};
  std::atomic<double> tookMs{-1};
};

TEST(CommunicationServer, MayEndInsideEveryCallback) {
  const std::function<void(InnerEnd&)> ends[] = {[](auto& s) { s.server->terminate(); },
                                                 [](auto& s) { s.server.reset(); },
                                                 [](auto& s) { s.wire.reset(), s.server.reset(); }};
  const std::size_t threadsBefore = threads(), descriptorsBefore = openDescriptors();
  for (int i = 0; i < 18; ++i) {
    SCOPED_TRACE("end " + std::to_string(i % 3) + " at " + std::to_string(i / 3));
    InnerEnd scene(i / 3, ends[i % 3]);
    RawSocket client = RawSocket::connectTo(listenOn(scene));
    if (scene.place != Place::Arrival) client.send("hello\r\n");
    if (scene.place == Place::Leaving) client.close();
    ASSERT_TRUE(eventually([&] { return scene.tookMs >= 0; }));
    EXPECT_LT(scene.tookMs, kStopBoundMs);
    EXPECT_TRUE(eventually([&] { return threads() <= threadsBefore; }, kStopBoundMs));
    if (scene.place != Place::Leaving) client.read(1000, kStopBoundMs);
    EXPECT_TRUE(scene.place == Place::Leaving || client.ended());
    EXPECT_LT(timedMs([&] { scene.server.reset(); }), kStopBoundMs);
    EXPECT_FALSE(scene.toldAfterwards);
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptorsBefore; }));
}

}  // namespace
}  // namespace test
