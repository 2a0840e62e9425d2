#include "tcp_client_wrapper.h"

#include <gtest/gtest.h>

#include <future>

#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "texts.h"

namespace {

using namespace test;

/// A wrapper, the door of its server, and what it tells.
struct Subject : brix::iRecieveListener {
  Subject() { client->attachListener(this); }
  void onReceive(const std::string& msg) override { inbox.add(msg), onMsg(msg); }
  int connect() const { return client->connectSocket("127.0.0.1", door.port()); }
  RawSocket connected() const { return check(connect() == 1, "connect"), door.accept(); }
  bool up() const { return client->isConnected(); }
  bool send(const std::string& msg) const { return client->send("", msg, 0); }
  double endMs() {
    return timedMs([this] { client.reset(); });
  }
  const RawListener door;
  Texts inbox;
  std::function<void(const std::string&)> onMsg = [](const auto&) {};
  struct Client final : brix::TcpClientWrapper {};
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

struct TcpClientWrapperTest : testing::Test {
  ~TcpClientWrapperTest() override { EXPECT_TRUE(census.grownBy(0, abandoned)); }
  const std::string beat = "{\"command\":\"heartbeat\"}\r\n";
  std::size_t abandoned = 0;  // descriptors of failed sends, left open on purpose
  const Census census{};
  LogCapture log;
};

TEST_F(TcpClientWrapperTest, ConnectsAndGoesRoundTheListeners) {
  Texts told;
  Subject a, b;
  for (auto* one : {&b, static_cast<Subject*>(nullptr)}) a.client->attachListener(one);
  a.onMsg = [&](const auto& msg) {  // goes on when all has been read
    told.add("a" + msg), check(!eventually([&] { return log.errors("time out") > 0; }), "boom");
  };
  b.onMsg = [&](const auto& msg) { told.add("b" + msg), throw 7; };
  EXPECT_EQ(a.client->connectSocket("127.0.0.1", 0), -1);
  EXPECT_EQ(log.texts().back(), "[ERR_COMMUNICATION] TCP connected failed, ip 127.0.0.1, port 0");
  const RawSocket other = b.connected(), peer = a.connected();
  const std::string success =
      "Tcp connect socket [127.0.0.1 : " + std::to_string(a.door.port()) + "] success, handle id 1";
  const std::string stars(41, '*'), enjoy = "*************   Enjoy ^-^    ************";
  const std::vector<std::string> banner{success, stars, stars, enjoy, stars, stars, "", ""};
  EXPECT_TRUE(std::equal(banner.begin(), banner.end(), log.texts().end() - 8));
  peer.send("0\r\n1\r\n\r\n2\r\n3\r\n");
  shutdown(peer.fd(), SHUT_WR);
  EXPECT_TRUE(told.gets("b"));  // its turn, but no message is left
  other.send("\r\n");           // not a message, but it ends the silent spell of all wrappers
  EXPECT_TRUE(eventually([&] { return log.errors("time out") == 2; }));
  EXPECT_FALSE(eventually([&] { return log.errors("time out") > 2; }, 20));
  EXPECT_EQ(told.all(), (std::vector<std::string>{"a0", "b1", "a3", "b"}));
  EXPECT_EQ(log.errors("onReceive exception: "), 4u);
  EXPECT_EQ(log.infos("TcpClientWrapper attach listener, current listener number 3"), 1u);
}

TEST_F(TcpClientWrapperTest, SilenceEndsTheConnection) {
  const auto start = Clock::now();
  Subject noise, late, fed;
  RawSocket toNoise = noise.connected(), toLate = late.connected(), toFed = fed.connected();
  double lastMs = 0, noiseMs = 0;
  EXPECT_TRUE(eventually([&] {
    ::send(toNoise.fd(), "x", 1, MSG_NOSIGNAL);  // never a message
    if (elapsedMs(start) < 300) lastMs = elapsedMs(start), toLate.send("m\r\n");
    toFed.send("m\r\n");
    if (noiseMs == 0 && !noise.up()) noiseMs = elapsedMs(start);
    return noiseMs > 0 && !late.up();
  }));
  EXPECT_NEAR(noiseMs, 1500 + kStopBoundMs / 2, kStopBoundMs / 2);
  EXPECT_NEAR(elapsedMs(start) - lastMs, 1500 + kStopBoundMs / 2, kStopBoundMs / 2);
  EXPECT_LT(timedMs([&] { late.connect(); }), 1300);  // the old heartbeat pauses no more
  for (const char* line :
       {"heartbeat stop...", "broadcast thread quit...", "heart broken...", "send thread quit..."})
    EXPECT_EQ(log.errors(line), 2u) << line;
  const double beats = static_cast<double>(toFed.read(1 << 16, 10).size() / beat.size());
  EXPECT_TRUE(beats >= 2 && beats <= 1 + elapsedMs(start) / 1000) << beats;
  toFed.reset();
  EXPECT_TRUE(eventually([&] { return fed.send("") && log.errors("send failed") == 1; }));
  ++abandoned;
  EXPECT_LT(fed.endMs(), kStopBoundMs);
}

TEST_F(TcpClientWrapperTest, ReconnectsAtOnceAndKeepsWhatIsUnfinished) {
  Subject subject;
  std::string unsent, begin = "tail\r\n";
  std::vector<std::string> expected;
  for (const int pauseMs : {0, 0, 1, 10, 200, 900}) {
    subject.client->disConnected();
    EXPECT_FALSE(subject.up() || subject.send("too early"));
    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    EXPECT_LT(timedMs([&] { EXPECT_EQ(subject.connect(), 1); }), 1300);
    const RawSocket peer = subject.door.accept();
    EXPECT_EQ(peer.read((unsent + beat).size()), unsent + beat);
    EXPECT_TRUE(census.grownBy(4, 3));  // exactly one of each thread
    peer.send(begin + std::to_string(pauseMs) + "\r\n\r\ntail\r");
    expected.insert(expected.end(), {"tail", std::to_string(pauseMs)});
    EXPECT_TRUE(eventually([&] { return subject.inbox.all() == expected; }));
    subject.send(std::string(16 << 20, 'x'));  // more than the buffers hold
    for (const char* text : {"y", "", "y\r\n"}) subject.send(text);
    EXPECT_TRUE(eventually([&] { return peer.read(1) == "x"; }));  // behind a late heartbeat
    unsent = "y\r\n\r\ny\r\n\r\n", begin = "\n";
  }
  EXPECT_LT(subject.endMs(), kStopBoundMs);  // inside that send
}

TEST_F(TcpClientWrapperTest, SurvivesThreadsThatFailAndListenersThatCallIt) {
  const std::function<void(Subject&)> actions[] = {
      [](auto& s) { s.client->attachListener(nullptr), s.send("x"); },
      [](auto& s) { s.client->disConnected(); },
      [](auto& s) { s.client->disConnected(), check(s.connect() == 1, "connect"); },
      [](auto& s) { s.client.reset(); },
      [](auto& s) { check(s.connect() == -1, "end"); }};  // pauses until the client is destroyed
  for (int i = 0; i < 5; ++i) {
    threadThatFails = i == 0 ? 1 : 0;  // the unit's thread, then a worker
    Subject subject;
    threadThatFails = i % 3 + 1;
    EXPECT_TRUE(subject.connect() == -1 && !subject.up()) << i;
    subject.door.accept();
    EXPECT_TRUE(census.grownBy(i == 0 ? 0 : 1, 1));
    for (int n = 0; n < 50; ++n)
      check(subject.connect() == 1, "connect"), subject.client->disConnected(),
          subject.door.accept();
    EXPECT_TRUE(census.grownBy(1, 1));
    std::atomic<bool> done{false};
    subject.onMsg = [&](const auto& msg) { msg == "go" ? actions[i](subject), done = true : true; };
    std::vector<RawSocket> peers;
    peers.push_back(subject.connected());
    peers[0].send("go\r\n");
    EXPECT_TRUE(eventually([&] { return i == 4 ? !subject.up() : done.load(); })) << i;
    if (i == 2) peers.push_back(subject.door.accept()), peers[1].send("more\r\n");
    EXPECT_TRUE(i != 2 || subject.inbox.gets("more"));
    EXPECT_TRUE(subject.endMs() < kStopBoundMs && done) << i;
  }
}

TEST_F(TcpClientWrapperTest, ConnectsOneAtATimeAndPausesWhenConnected) {
  Subject twice, paused;
  const auto down = [&] { return !paused.up(); };
  paused.onMsg = [&](const auto&) { check(eventually(down) && paused.connect() == -1, ""); };
  const RawSocket peer = paused.connected();
  peer.send("m\r\n");
  EXPECT_TRUE(paused.inbox.gets("m"));
  const auto call = [](auto& s) { return std::async(std::launch::async, &Subject::connect, &s); };
  const auto start = Clock::now();
  std::future<int> calls[] = {call(twice), call(twice), call(paused)};
  for (auto& result : calls) EXPECT_EQ(result.get(), 1);
  EXPECT_TRUE(elapsedMs(start) >= 3000 && elapsedMs(start) < 3000 + kStopBoundMs);
  EXPECT_TRUE(log.errors("another thread is connecting") == 1 && log.errors("exception") == 0);
  EXPECT_TRUE(census.grownBy(8, 5));
}

}  // namespace
