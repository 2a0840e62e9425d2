#include "communication_client.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "fake_client.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_client.h"

namespace test {
namespace {

using brix::CommunicationClient;
using std::chrono::milliseconds;
using List = std::vector<std::string>;

const std::string kHeartbeat = "{\"command\":\"heartbeat\"}";

/// Destroys the very class, as its destructor is not virtual.
struct Destroy {
  void operator()(CommunicationClient* client) const {
    client->CommunicationClient::~CommunicationClient();
    ::operator delete(client);
  }
};

/// A client, and what it tells. Its transport follows a script unless there is a peer.
struct Subject : brix::iRecieveListener {
  explicit Subject(const RawListener* peer = nullptr) {
    client->setClientHandle(wire);
    if (peer) client->setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", peer->port()));
    client->registerMsgListener([this](const auto& msg) { inbox.add(msg), onMsg(msg); });
    client->registerConnectionListener([this](bool up) { ++(up ? ups : downs), onChange(up); });
  }
  void onReceive(const std::string& msg) override { onListen(msg); }
  void setModes(bool queued, bool receiving, bool beating) {
    client->setSendMode(queued);
    client->setBroadcastMode(receiving);
    client->setHeartbeatMode(beating);
  }
  int connect() { return client->connect("10.0.0.1", 77, 1); }
  bool gets(const std::string& msg) {
    return eventually([&] { return inbox.count(msg) > 0; });
  }
  bool sends(const std::string& msg) {
    return eventually([&] { return wire->sent.count(msg) > 0; });
  }

  std::shared_ptr<FakeClient> wire = std::make_shared<FakeClient>();
  Texts inbox;
  std::atomic<int> ups{0}, downs{0};
  std::function<void(const std::string&)> onMsg = [](const auto&) {}, onListen = onMsg;
  std::function<void(bool)> onChange = [](bool) {};
  std::unique_ptr<CommunicationClient, Destroy> client{new CommunicationClient};
};

/// Checks that nothing is left of what the test has opened and started.
struct Census {
  ~Census() {
    EXPECT_TRUE(eventually([this] { return threads() <= threadCount; }));
    EXPECT_TRUE(eventually([this] { return openDescriptors() <= descriptorCount; }));
  }
  const std::size_t threadCount = threads(), descriptorCount = openDescriptors();
};

TEST(CommunicationClient, ConnectReturnsAndLogsHowItWent) {
  const std::string missing =
      "ERROR you have set a client handle by setClientHandle before communication";
  const std::string begin = "INFO Try to connect ip 10.0.0.1, port 77";
  const std::string done = "INFO Connect server SUCCESSFUL", already = "INFO Already connect";
  const std::string caught = "ERROR catch exception";
  const std::string threw = "ERROR connection listener exception: not a std::exception";
  const std::string end = "INFO CommunicationClient disconnected...";
  const std::function<void(Subject&)> noTransport = [](auto& s) { s.client->setClientHandle({}); };
  const auto returns = [](int result) {
    return [=](Subject& s) { s.wire->onConnect = [=] { return result != 7 ? result : throw 7; }; };
  };
  const struct {
    bool print;
    std::function<void(Subject&)> prepare;
    int result;
    bool connected;
    List log;
  } rows[] = {
      {true, noTransport, -1, false, {missing}},
      {false, noTransport, -1, false, {missing}},
      {true, returns(0), 0, false, {begin}},
      {true, returns(-1), -1, false, {begin}},
      {true, returns(7), -1, false, {begin, caught}},
      {false, returns(7), -1, false, {}},
      {true,
       [](auto& s) { s.onChange = [](bool) { throw 7; }; },
       -1,
       true,
       {begin, done, caught, already, threw, end}},
      {true, returns(1), 1, true, {begin, done, already, end}},
      {false, returns(1), 1, true, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    LogCapture log;
    Subject subject;
    subject.client->setPrintFlag(row.print);
    EXPECT_EQ(subject.wire->logFlag, row.print);
    subject.setModes(false, false, false);
    row.prepare(subject);
    EXPECT_EQ(subject.connect(), row.result);
    EXPECT_EQ(subject.client->isConnected(), row.connected);
    EXPECT_TRUE(!row.connected || subject.connect() == 1);
    subject.client->disConnect();
    EXPECT_EQ(subject.downs, row.connected ? 1 : 0);
    EXPECT_EQ(log.texts(true), row.log);
  }
}

TEST(CommunicationClient, FramesQueuedTextsOnly) {
  const std::string nul("\0x\0", 3);
  const List texts{"", "a", "ab", "\r\n", "abc", "abc\r\n", nul};
  const List framed{"", "a", "ab", "\r\n", "abc\r\n", "abc\r\n", nul + "\r\n"};
  Json::Value request;
  request["b"] = 0.123456789;
  request["a"] = "x";
  for (const int mode : {0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    LogCapture log;
    Subject subject;
    auto& client = *subject.client;
    const bool queued = mode % 2 != 0;
    if (mode > 1) subject.wire->delimiter = "";
    const std::string end = queued ? subject.wire->delimiter : "";
    subject.setModes(queued, true, false);
    EXPECT_EQ(client.sendMsg("x") + client.sendMsg("x", 1) + client.sendRequest(request), -3);
    subject.connect();
    for (const auto& text : texts) EXPECT_EQ(client.sendMsg(text), 1);
    EXPECT_EQ(client.sendRequest(request), 1);
    List expected = end.empty() ? texts : framed;
    expected.push_back("{\"a\":\"x\",\"b\":0.123457}" + end);
    EXPECT_TRUE(subject.sends(expected.back()));
    EXPECT_EQ(client.sendMsg("bytes", 3), 1);
    expected.push_back("raw byt");
    EXPECT_EQ(subject.wire->sent.all(), expected);
    client.disConnect();
    client.setHeartbeatMode(true);
    subject.connect();
    EXPECT_TRUE(subject.sends(kHeartbeat + end));
    EXPECT_EQ(client.sendMsg("throw 7", 7), 0);
    EXPECT_EQ(client.sendMsg("throw"), queued ? 1 : 0);
    const char* text = queued ? "sendRequestFunc catch exception" : "sendMsg exception: boom";
    EXPECT_TRUE(eventually([&] { return log.errors(text) == 1; }));
    EXPECT_EQ(client.sendRequest("throw"), queued ? 1 : 0);
    EXPECT_EQ(log.errors("sendRequest exception: boom"), queued ? 0u : 1u);
  }
}

TEST(CommunicationClient, CutsChunksAndKeepsTheTailWhenItDropsItsQueues) {
  for (const bool blocking : {true, false}) {
    LogCapture log;
    std::atomic<bool> held{false};
    Subject subject;
    const auto read = [&](const char* chunk) {
      subject.wire->push(chunk);
      EXPECT_TRUE(subject.wire->drained());
    };
    subject.onMsg = [&](const auto&) { eventually([&] { return !held; }); };
    subject.wire->blocking = blocking;
    subject.client->setSendRate(60000);
    subject.connect();
    for (const char* chunk : {"a\r\n", "b", "\r\n", "c\r", "\n\r\nd\r\ne"}) read(chunk);
    EXPECT_TRUE(subject.gets("d"));
    held = true;
    subject.client->sendMsg("dropped");
    read("f\r\n");
    EXPECT_TRUE(subject.gets("ef"));
    read("dropped\r\nun");
    read("fin");
    EXPECT_EQ(log.infos(" fin") + log.infos(" unfin"), 2u);  // the chunk, and all that waits
    __atomic_store_n(&brix::brix_controller_error, true, __ATOMIC_RELAXED);
    read("ish");
    __atomic_store_n(&brix::brix_controller_error, false, __ATOMIC_RELAXED);
    subject.client->setPrintFlag(false);
    read("ed");
    EXPECT_EQ(log.infos("unfinish"), 0u);
    subject.client->disConnect();
    held = false;
    subject.client->setSendRate(0.5);
    subject.connect();
    subject.client->sendMsg("new text");
    subject.wire->push("!\r\n");
    EXPECT_TRUE(subject.gets("unfinished!") && subject.sends("new text\r\n"));
    EXPECT_EQ(subject.wire->sent.count("dropped\r\n"), 0u);
    subject.client->disConnect();
    subject.wire->delimiter = "";
    subject.connect();
    read("g\r\n");
    EXPECT_TRUE(subject.gets("g\r\n"));
    EXPECT_EQ(subject.inbox.all(), (List{"a", "bc", "d", "ef", "unfinished!", "g\r\n"}));
  }
}

TEST(CommunicationClient, TellsEveryListenerInOrder) {
  LogCapture log;
  Texts told;
  Subject a, b, c, subject;  // the first three are only listeners
  a.onListen = [&](const auto& msg) { told.add("a" + msg), throw std::runtime_error("boom"); };
  b.onListen = [&](const auto& msg) { told.add("b" + msg), throw 7; };
  c.onListen = [&](const auto& msg) { told.add("c" + msg); };
  auto& client = *subject.client;
  client.registerMsgListener(nullptr);
  client.registerMsgListener([&, n = 0](const auto&) mutable { told.add(std::to_string(++n)); });
  for (auto* one : std::array<Subject*, 5>{&a, &b, &a, nullptr, &c}) client.attachListener(one);
  for (auto* one : {&a, &subject}) client.releaseListener(one);
  subject.wire->push("x\r\ny\r\n");
  subject.connect();
  EXPECT_TRUE(eventually([&] { return told.count("2") > 0; }));
  EXPECT_EQ(told.all(), (List{"bx", "ax", "cx", "1", "by", "ay", "cy", "2"}));
  EXPECT_EQ(log.errors("onReceive exception: boom"), 2u);
  EXPECT_EQ(log.errors("onReceive exception: "), 4u);
  EXPECT_EQ(log.errors("message listener exception: "), 2u);
}

TEST(CommunicationClient, ChangingTheListenersInsideAListenerBlocksUntilTheEnd) {
  for (const int i : {0, 1, 2}) {
    LogCapture log;
    Subject subject;
    std::atomic<bool> passed{false};
    subject.onMsg = [&](const auto&) {
      if (i == 0) subject.client->attachListener(nullptr);
      if (i == 1) subject.client->releaseListener(nullptr);
      if (i == 2) subject.client->registerMsgListener(nullptr);
      passed = true;
    };
    subject.connect();
    subject.wire->push("x\r\n");
    EXPECT_TRUE(eventually([&] { return log.errors("changed inside a listener") == 1; }));
    EXPECT_FALSE(eventually([&] { return passed.load(); }, 20));
    if (i == 0) subject.client->disConnect();
    EXPECT_LT(timedMs([&] { subject.client.reset(); }), kStopBoundMs);
    EXPECT_TRUE(passed);
  }
}

TEST(CommunicationClient, ConnectsOnceThoughTwoThreadsAsk) {
  LogCapture log;
  const RawListener listener;
  const Census census;
  Subject subject(&listener);
  const auto connect = [&] { EXPECT_EQ(subject.connect(), 1); };
  for (int round = 1; round <= 50; ++round) {
    std::thread other(connect);
    connect();
    other.join();
    EXPECT_EQ(subject.client->sendMsg("hello"), 1);
    const RawSocket peer = listener.accept();
    const std::string bytes = peer.read(32, 2000), beat = kHeartbeat + "\r\n";
    ASSERT_TRUE(bytes == beat + "hello\r\n" || bytes == "hello\r\n" + beat) << bytes;
    EXPECT_TRUE(eventually([&] { return threadsNamed("com_client") == 1; }));
    EXPECT_LT(timedMs([&] { subject.client->disConnect(); }), kStopBoundMs);
    EXPECT_TRUE(subject.ups == round && subject.downs == round);
  }
}

TEST(CommunicationClient, EndsInEveryModeWhateverThePeerDoes) {
  LogCapture log;
  const RawListener listener;
  const Census census;
  std::size_t ended = 0;
  for (int i = 0; i < 32; ++i) {
    SCOPED_TRACE(i);
    const bool queued = i % 2 != 0, receiving = i / 2 % 2 != 0, silent = i / 4 % 2 != 0,
               modesOff = i < 16;
    Subject subject(&listener);
    subject.client->setSendRate(silent ? 60000 : 0.5);
    subject.setModes(queued, receiving, i / 8 % 2 != 0);
    ASSERT_EQ(subject.connect(), 1);
    std::thread peer([silent, socket = listener.accept()] {
      try {
        while (!silent) socket.send("message\r\n");
      } catch (const std::runtime_error&) {  // the client has left
      }
      while (!socket.ended()) socket.read(1 << 20, 10);
    });
    EXPECT_TRUE(!receiving || silent || subject.gets("message"));
    for (int n = 0; n < 100; ++n) subject.client->sendMsg("text");
    const auto stop = [&] { return modesOff ? subject.setModes(false, false, false) : void(); };
    EXPECT_LT(timedMs(stop), kStopBoundMs);
    ended += (queued ? 1 : 0) + (receiving ? 1 : 0);
    EXPECT_TRUE(!modesOff || log.errors("thread quit...") == ended);
    const std::size_t readers = receiving && !modesOff ? 1 : 0;
    EXPECT_TRUE(eventually([&] { return threadsNamed("com_client") == readers; }));
    EXPECT_LT(timedMs([&] { subject.client.reset(); }), kStopBoundMs);
    EXPECT_EQ(!subject.inbox.all().empty(), receiving && !silent);
    peer.join();
  }
  EXPECT_EQ(log.errors("heart broken..."), 16u);
  EXPECT_EQ(log.errors("broadcast thread quit...") + log.errors("send thread quit..."), ended);
}

TEST(CommunicationClient, SilenceWarnsAndEndsTheConnection) {
  LogCapture log;
  const RawListener listener;  // its clients are connected, and hear nothing
  Clock::time_point start;
  std::array<std::atomic<double>, 3> downMs{};
  Subject fresh(&listener), again(&listener), bare, off, busy;
  bare.wire->idleChunk = "\r\n";  // no traffic
  off.client->setHeartbeatMode(false);
  EXPECT_EQ(again.connect(), 1);
  EXPECT_FALSE(eventually([&] { return log.errors("recv cost exceed") > 0; }, 300));
  again.client->disConnect();

  start = Clock::now();
  const std::array<Subject*, 3> silent{&fresh, &again, &bare};
  for (std::size_t i = 0; i < silent.size(); ++i) {
    silent[i]->onChange = [&, i](bool up) { downMs[i] = up ? 0 : elapsedMs(start); };
    EXPECT_EQ(silent[i]->connect(), 1);
  }
  EXPECT_EQ(off.connect() + busy.connect(), 2);
  off.client->setHeartbeatMode(true);  // from the next connection on
  std::array<Subject, 4> late;         // disconnected at the watchdog's moment
  std::vector<std::thread> stoppers;
  for (Subject& subject : late) {
    subject.client->setPrintFlag(false);
    subject.wire->idleChunk = "x";  // traffic, but no message
    subject.wire->onClose = [slow = true]() mutable {
      if (std::exchange(slow, false)) std::this_thread::sleep_for(milliseconds(200));
    };
    EXPECT_EQ(subject.connect(), 1);
    const int afterMs = std::array{2900, 2995, 3000, 3005}.at(stoppers.size());
    stoppers.emplace_back([&subject, at = Clock::now() + milliseconds(afterMs)] {
      std::this_thread::sleep_until(at);
      EXPECT_LT(timedMs([&] { subject.client->disConnect(); }), 400 + kStopBoundMs);
      EXPECT_EQ(subject.connect(), 1);
    });
  }
  EXPECT_TRUE(eventually([&] {
    const double ms = elapsedMs(start);  // two gaps of more than a second
    if ((ms > 1500 && ms < 1600) || ms > 2950) busy.wire->push("message\r\n");
    return log.infos("communication thread quit.") == 3;
  }));
  for (const auto& ms : downMs) EXPECT_TRUE(ms >= 3000 && ms < 3000 + kStopBoundMs) << ms;
  std::array<int, 4> warnings{};  // by second
  for (const auto& line : log.lines()) {
    const bool warning = line.line.find(" ms, still recv nothing.") != line.line.npos;
    const std::chrono::duration<double> at = line.at - start;
    if (warning) ++warnings.at(static_cast<std::size_t>(at.count()));
  }
  EXPECT_EQ(warnings, (std::array{0, 4, 4, 3}));
  EXPECT_EQ(log.infos("has data false, duration 3"), 3u);
  EXPECT_EQ(log.infos("CommunicationClient disconnected..."), 4u);
  EXPECT_TRUE(off.client->isConnected() && busy.client->isConnected());
  EXPECT_EQ(off.wire->sent.all(), List{});
  EXPECT_GE(busy.wire->sent.count(kHeartbeat + "\r\n"), 2u);
  EXPECT_LE(busy.wire->sent.all().size(), 1 + elapsedMs(start) / 2500);
  for (auto& stopper : stoppers) stopper.join();
  for (const Subject& subject : late) {
    EXPECT_FALSE(eventually([&] { return !subject.client->isConnected(); }, 20));
    EXPECT_EQ(subject.downs, 1);
  }
}

enum class Place { Listener, Callback, Up, Down, Silence };

/// A client that is acted upon inside one of its callbacks.
struct InnerAct : Subject {
  InnerAct(int where, std::function<void(Subject&)> what) : place(Place(where)), action(what) {
    client->setPrintFlag(false);
    client->attachListener(this);
    wire->blocking = place != Place::Silence;
    wire->idleChunk = "x";  // traffic, but no message
    onListen = [this](const auto&) { act(place == Place::Listener); };
    onMsg = [this](const auto&) { act(place == Place::Callback); };
    onChange = [this](bool up) { act(up ? place == Place::Up : place >= Place::Down); };
    connect();
    if (place < Place::Up) wire->push("m\r\n");
    if (place == Place::Down) client->disConnect();
  }
  void act(bool here) {
    if (here && !done.exchange(true)) tookMs = timedMs([&] { action(*this); });
  }
  const Place place;
  const std::function<void(Subject&)> action;
  std::atomic<bool> done{false};
  std::atomic<double> tookMs{-1};
};

TEST(CommunicationClient, CallbacksMayStopIt) {
  LogCapture log;
  const Census census;
  const std::function<void(Subject&)> actions[] = {
      [](auto& s) { s.client.reset(); },
      [](auto& s) { s.client->disConnect(); },
      [](auto& s) { s.setModes(false, false, false); },
      [](auto& s) { EXPECT_EQ(s.connect(), 1); },
      [](auto& s) { s.client->disConnect(), s.connect(); },
  };
  std::vector<std::unique_ptr<InnerAct>> silent;  // these take three seconds
  for (const auto& action : actions) silent.push_back(std::make_unique<InnerAct>(4, action));
  for (int i = 0; i < 25; ++i) {
    SCOPED_TRACE("action " + std::to_string(i % 5) + " at " + std::to_string(i / 5));
    auto& own = silent[static_cast<std::size_t>(i % 5)];
    const auto scene = i < 20 ? std::make_unique<InnerAct>(i / 5, actions[i % 5]) : std::move(own);
    ASSERT_TRUE(eventually([&] { return scene->tookMs >= 0; }));
    EXPECT_LT(scene->tookMs, kStopBoundMs);
    const std::size_t received = scene->inbox.all().size();
    const auto serves = [&] {
      return scene->wire->push("m\r\n"), scene->inbox.all().size() > received;
    };
    EXPECT_TRUE(i % 5 < 3 || eventually(serves));
    EXPECT_LT(timedMs([&] { scene->client.reset(); }), kStopBoundMs);
  }
}

}  // namespace
}  // namespace test
