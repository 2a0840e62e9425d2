// Stops at every moment.

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <random>

#include "communication_server.h"
#include "figures.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_server_wrapper.h"
#include "two_clients.h"
#include "two_servers.h"

namespace test {
namespace {

using Action = std::function<void()>;
constexpr double kMinuteMs = 60000;
constexpr double kConnectMs = 1000;                 // what a client waits for an answer
constexpr double kStopMs = kSanitized ? 500 : 100;  // the promise, for the median of each cell

/// One object of the library that is to be stopped, with what is at its other end.
struct Subject {
  virtual ~Subject() = default;
  /// Begins to listen, or to connect on another thread; does not wait.
  virtual void begin() = 0;
  /// Waits until a server listens.
  virtual void start() { begin(); }
  /// @return a connected peer
  virtual RawSocket peer() = 0;
  virtual void emit(const std::string& text) = 0;
  /// Called once inside a callback of the object.
  virtual void setCallback(Action action) = 0;
  virtual void setRatesOfAMinute() {}
  /// @return what keeps a server at accepting, a client at waiting for the answer to its connect
  virtual std::shared_ptr<void> connecting() {
    auto waiting = std::make_shared<std::vector<RawSocket>>();
    for (int i = 0; i < 3 && port() != 0; ++i) waiting->push_back(RawSocket::connectTo(port()));
    return waiting;
  }
  /// @return the port of a server
  virtual int port() { return 0; }
  virtual void stop() = 0;
  virtual void destroy() = 0;
  double fixedPauseMs = 0;
  double ownStopMs = 0;  ///< of the stop inside a callback

 protected:
  static Action once(Action action) {
    return [action = std::move(action), done = std::make_shared<std::atomic<bool>>(false)] {
      if (!done->exchange(true)) action();
    };
  }
};

template <typename Server>
struct ServerSubject : Subject {
  void start() override { EXPECT_TRUE(server->start()); }
  RawSocket peer() override { return RawSocket::connectTo(port()); }
  int port() override { return server->port(); }
  void emit(const std::string& text) override { server->broadcast(text); }
  void stop() override { server->stop(); }
  void destroy() override { server.reset(); }
  std::unique_ptr<Server> server = std::make_unique<Server>();
};

struct StateServerSubject : ServerSubject<StateServer> {
  void begin() override { server->server.initialize(0); }
  void setCallback(Action action) override {
    server->server.registerMsgListener([call = once(std::move(action))](auto&&) { call(); });
  }
  void setRatesOfAMinute() override {
    server->server.setSendRate(kMinuteMs);
    server->server.setRecvRate(kMinuteMs);
  }
};

struct CommandServerSubject : ServerSubject<CommandServer>, brix::iRecieveListener {
  void begin() override { server->server.createSocket(0); }
  void setCallback(Action action) override {
    call = once(std::move(action));
    server->server.attachListener(this);
  }
  void onReceive(const std::string&) override { call(); }
  Action call;
};

struct WrapperSubject : Subject {
  WrapperSubject() { fixedPauseMs = 1000; }
  void begin() override {
    server->registerBroadcastFunc([] { return Json::Value(1); }, rateMs);
    server->init(0);
  }
  void start() override {
    begin();
    EXPECT_TRUE(server->waitUntilListening(kDeadlineMs));
  }
  RawSocket peer() override { return RawSocket::connectTo(port()); }
  int port() override { return server->listeningPort(); }
  void emit(const std::string& text) override { server->sendMsgs(text); }
  void setCallback(Action action) override {
    brix::TcpServerWrapper::ObjectHandlerMap map;
    map["m"] = [call = once(std::move(action))](const Json::Value& request) {
      return call(), request;
    };
    server->setHandleMap(map);
  }
  void setRatesOfAMinute() override {
    server->setBroadcastRate(rateMs = static_cast<int>(kMinuteMs));
  }
  void stop() override { server->quit(); }
  void destroy() override { server.reset(); }
  int rateMs = 5;
  std::unique_ptr<brix::TcpServerWrapper> server = std::make_unique<brix::TcpServerWrapper>(-1);
};

struct CommunicationServerSubject : Subject {
  void begin() override {
    server->setServerHandle(transport);
    server->registerBroadcastFunc([] { return std::string("state"); }, rateMs);
    server->initialize(0);
  }
  void start() override {
    begin();
    EXPECT_TRUE(transport->waitUntilListening(kDeadlineMs));
  }
  RawSocket peer() override { return RawSocket::connectTo(port()); }
  int port() override { return transport->listeningPort(); }
  void emit(const std::string& text) override { server->sendMsg(text); }
  void setCallback(Action action) override {
    server->registerRawDataBroadcastFunc(
        [call = once(std::move(action))](const std::string&) { return call(), std::string(); });
  }
  void setRatesOfAMinute() override { rateMs = kMinuteMs; }
  void stop() override { server->terminate(); }
  void destroy() override {
    server.reset();
    transport.reset();
  }
  double rateMs = 5;
  std::shared_ptr<brix::BrixTcpServer> transport = std::make_shared<brix::BrixTcpServer>();
  std::unique_ptr<brix::CommunicationServer> server = std::make_unique<brix::CommunicationServer>();
};

/// Takes every place in the queue of a port.
std::vector<RawSocket> fill(int port) {
  std::vector<RawSocket> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    ::connect(waiting.back().fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  return waiting;
}

/// @return how many connects to the port have no answer yet
int unanswered(int port) {
  char entry[16];
  std::snprintf(entry, sizeof entry, ":%04X 02 ", port);  // its number, and the state "SYN sent"
  std::ifstream table("/proc/self/net/tcp");
  int count = 0;
  for (std::string line; std::getline(table, line);) count += line.find(entry) != line.npos;
  return count;
}

template <typename Client>
struct ClientSubject : Subject, brix::iRecieveListener {
  void begin() override {
    connect = std::async(std::launch::async, [this] { return client->connect(door.port()); });
  }
  void start() override {}
  RawSocket peer() override {
    EXPECT_EQ(client->connect(door.port()), 1);
    return door.accept();
  }
  void emit(const std::string& text) override { client->send(text); }
  void setCallback(Action action) override {
    call = once(std::move(action));
    client->client->attachListener(this);
  }
  void onReceive(const std::string& msg) override {
    if (!msg.empty() && call) call();
  }
  std::shared_ptr<void> connecting() override {
    fixedPauseMs = kConnectMs;
    auto waiting = std::make_shared<std::vector<RawSocket>>(fill(door.port()));
    const int before = unanswered(door.port());
    begin();
    EXPECT_TRUE(eventually([&] {
      return unanswered(door.port()) > before ||
             connect.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    return waiting;
  }
  void stop() override { client->disconnect(); }
  // Nobody destroys a client that another thread uses.
  void destroy() override {
    if (connect.valid()) connect.wait();
    client.reset();
  }
  RawListener door{0};
  Action call;
  std::unique_ptr<Client> client = std::make_unique<Client>();
  std::future<int> connect;
};

struct StateClientSubject : ClientSubject<StateClient> {
  void setRatesOfAMinute() override {
    client->client->setSendRate(kMinuteMs);
    client->client->setRecvRate(kMinuteMs);
  }
};

/// The transport alone, with threads of its user.
struct Transport {
  ~Transport() { disconnect(); }
  int connect(int port) {
    const auto made = std::make_shared<brix::TcpClient>("127.0.0.1", port);
    std::atomic_store(&transport, made);
    if (made->connectServer(1) != 1) return -1;
    users.push_back(std::async(std::launch::async, [this, made] {
      for (std::string text; !(text = made->recieveMsg()).empty();) {
        if (listener != nullptr) listener->onReceive(text);
      }
    }));
    return 1;
  }
  void attachListener(brix::iRecieveListener* attached) { listener = attached; }
  void send(const std::string& text) {
    users.push_back(std::async(std::launch::async, [this, text] { transport->sendMsg(text); }));
  }
  void disconnect() {
    if (const auto made = std::atomic_load(&transport)) made->closeClient();
  }
  Transport* const client = this;
  brix::iRecieveListener* listener = nullptr;
  std::shared_ptr<brix::TcpClient> transport;
  std::vector<std::future<void>> users;
};

/// A connection whose other end is the object's.
struct EndSubject : Subject {
  RawSocket peer() override { return RawSocket(far.take()); }
  RawListener door;
  RawSocket far = RawSocket::connectTo(door.port()), own = door.accept();
};

struct HandlerSubject : EndSubject {
  void begin() override {
    handler = std::make_unique<brix::TcpServerHandler>(own.take(), 1, intervalMs);
  }
  void emit(const std::string& text) override {
    users.push_back(std::async(std::launch::async, [this, text] { handler->sendMsg(text); }));
  }
  void setCallback(Action action) override {
    handler->msgCallback = [call = once(std::move(action))](const std::string&) { call(); };
  }
  void setRatesOfAMinute() override { intervalMs = static_cast<int>(kMinuteMs); }
  void stop() override { handler->terminate(); }
  void destroy() override { users.clear(), handler.reset(); }
  int intervalMs = 0;
  std::unique_ptr<brix::TcpServerHandler> handler;
  std::vector<std::future<void>> users;
};

struct UnitSubject : EndSubject {
  struct Unit final : brix::ThreadUnit {
    explicit Unit(int end) : ThreadUnit("unit", 1), fd(end) {}
    ~Unit() { stop(); }
    void threadCycle() override {
      char block[4096];
      if (recv(fd, block, sizeof block, MSG_DONTWAIT) > 0) call();
    }
    using ThreadUnit::setPeriod;
    using ThreadUnit::stop;
    brix::CallbackSlot<void()> call;
    const int fd;
  };
  void begin() override { unit->start(); }
  void emit(const std::string& text) override {
    ::send(own.fd(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  void setCallback(Action action) override { unit->call = once(std::move(action)); }
  void setRatesOfAMinute() override { unit->setPeriod(kMinuteMs); }
  void stop() override { unit->stop(); }
  void destroy() override { unit.reset(), own.close(); }
  std::unique_ptr<Unit> unit = std::make_unique<Unit>(own.fd());
};

// Twice, so that every listener of a client gets one.
constexpr char kMessage[] = "{\"command\":\"m\"}\r\n{\"command\":\"m\"}\r\n";

/// Sends and connects from other threads until it is destroyed.
class Traffic {
 public:
  explicit Traffic(std::function<void()> step) {
    for (int i = 0; i < 2; ++i) {
      threads_.push_back(std::async(std::launch::async, [this, step] {
        try {
          while (!stop_) step();
        } catch (const std::runtime_error&) {  // the other end has gone
        }
      }));
    }
  }
  ~Traffic() { stop_ = true; }

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::future<void>> threads_;
};

/// Brings the subject into a situation and returns what keeps it there.
using Situation = std::function<std::shared_ptr<void>(Subject&)>;

std::shared_ptr<void> keep(RawSocket&& peer) {
  return std::make_shared<RawSocket>(std::move(peer));
}

std::shared_ptr<void> connectedSilently(Subject& subject) {
  return keep(subject.peer());
}

/// @return a peer that the subject has heard
RawSocket served(Subject& subject) {
  const auto heard = std::make_shared<std::promise<void>>();
  subject.setCallback([heard] { heard->set_value(); });
  RawSocket peer = subject.peer();
  peer.send(kMessage);
  EXPECT_TRUE(ready(*heard));
  return peer;
}

std::shared_ptr<void> connectedIdle(Subject& subject) {
  return keep(served(subject));
}

std::shared_ptr<void> withFullBuffers(Subject& subject) {
  RawSocket peer = served(subject);
  for (int i = 0; i < 8; ++i) subject.emit(std::string(4 << 20, 'x'));
  EXPECT_NE(peer.read(1), "");
  return keep(std::move(peer));
}

std::shared_ptr<void> inABurst(Subject& subject) {
  auto peer = std::make_shared<RawSocket>(subject.peer());
  return std::make_shared<Traffic>([peer] { peer->send(kMessage); });
}

std::shared_ptr<void> inAStormOfConnections(Subject& subject) {
  const auto first = std::make_shared<RawSocket>(subject.peer());
  if (subject.port() == 0) return first;
  return std::make_shared<Traffic>(
      [first, port = subject.port()] { RawSocket::connectTo(port).reset(); });
}

Situation endedByItsCallback(void (Subject::*end)()) {
  return [end](Subject& subject) {
    const auto ended = std::make_shared<std::promise<void>>();
    subject.setCallback([ended, end, &subject] {
      subject.ownStopMs = timedMs([&] { (subject.*end)(); });
      ended->set_value();
    });
    RawSocket peer = subject.peer();
    peer.send(kMessage);
    EXPECT_TRUE(ready(*ended));
    return keep(std::move(peer));
  };
}

constexpr char kMinuteRate[] = "rate of a minute", kDestroyed[] = "destroyed by its callback";

struct Class {
  const char* name;
  std::function<std::unique_ptr<Subject>()> make;
  bool goesInCallback = true;  // whether a callback may destroy it
};
template <typename Made>
Class classOf(const char* name, bool goesInCallback = true) {
  return {name, [] { return std::make_unique<Made>(); }, goesInCallback};
}
const Class kClasses[] = {classOf<StateServerSubject>("BrixTcpServer"),
                          classOf<CommandServerSubject>("TcpServer"),
                          classOf<WrapperSubject>("TcpServerWrapper"),
                          classOf<CommunicationServerSubject>("CommunicationServer"),
                          classOf<StateClientSubject>("CommunicationClient"),
                          classOf<ClientSubject<CommandClient>>("TcpClientWrapper"),
                          classOf<ClientSubject<Transport>>("TcpClient", false),
                          classOf<HandlerSubject>("TcpServerHandler"),
                          classOf<UnitSubject>("ThreadUnit", false)};

const std::pair<const char*, Situation> kSituations[] = {
    {"idle", [](Subject&) { return nullptr; }},
    {"connected", connectedIdle},
    {"silent peer", connectedSilently},
    {"full buffers", withFullBuffers},
    {"mid-burst", inABurst},
    {"accept storm", inAStormOfConnections},
    {"own callback", endedByItsCallback(&Subject::stop)},
    {kDestroyed, endedByItsCallback(&Subject::destroy)},
    {"during connect", [](Subject& subject) { return subject.connecting(); }},
    {kMinuteRate, connectedSilently}};

/// @return milliseconds beyond what the class pauses on purpose
double stopMs(const Class& of, const std::string& name, const Situation& situation) {
  const auto subject = of.make();
  if (name == kMinuteRate) subject->setRatesOfAMinute();
  subject->start();
  const auto kept = situation(*subject);
  const double ms = timedMs([&] {
    if (name != kDestroyed) subject->stop();
    subject->destroy();
  });
  return std::max(ms, subject->ownStopMs) - subject->fixedPauseMs;
}

/// Stops that many, a few at a time.
void addStops(int times, const Class& of, const std::string& name, const Situation& situation,
              Timings& cell) {
  std::vector<std::future<double>> stops;
  for (int i = 0; i < times; ++i) {
    stops.push_back(std::async(std::launch::async, stopMs, of, name, situation));
    if (stops.size() < 7 && i + 1 < times) continue;
    for (auto& stop : stops) cell.add(stop.get());
    stops.clear();
  }
}

TEST(Stops, AreShortInEverySituation) {
  const LogCapture log;
  const int times = std::max(volume(20, 20), 3);
  for (const Class& of : kClasses) {
    double worstMs = 0, worstMedianMs = 0;
    const char* worst = "";
    for (const auto& [name, situation] : kSituations) {
      if (name == kDestroyed && !of.goesInCallback) continue;
      Timings cell;
      do {  // again if the machine was held up: that hits all of the few that run at a time
        addStops(times, of, name, situation, cell);
      } while (cell.median() >= kStopMs && cell.count() < 4 * static_cast<std::size_t>(times));
      EXPECT_LT(cell.median(), kStopMs) << of.name << ", " << name;
      EXPECT_LT(cell.worst(), 3 * kStopBoundMs) << of.name << ", " << name;
      worstMedianMs = std::max(worstMedianMs, cell.median());
      if (cell.worst() > worstMs) worstMs = cell.worst(), worst = name;
    }
    figure("R4", "%s: %zu situations, %d stops each, slowest %.0f ms (%s), slowest median %.0f ms",
           of.name, std::size(kSituations), times, worstMs, worst, worstMedianMs);
  }
}

/// @param random  up to 200 us pass between the start and the stop
/// @return milliseconds of the stop beyond what the class pauses on purpose
double stopAtOnceMs(const Class& of, std::minstd_rand& random) {
  const double delayUs = static_cast<double>(random() % 200);
  const auto subject = of.make();
  const auto start = Clock::now();
  subject->begin();
  while (elapsedMs(start) * 1000 < delayUs) {
  }
  return timedMs([&] { subject->stop(), subject->destroy(); }) - subject->fixedPauseMs;
}

TEST(Stops, RightAfterTheStartNeverHang) {
  const LogCapture log;
  const int times = volume(5000, 1000);
  const Traffic burners([] {});
  std::atomic<int> next{0};
  Timings stops;
  std::vector<std::future<void>> workers;
  for (unsigned worker = 0; worker < 32; ++worker) {  // most are in the pause of a wrapper
    workers.push_back(std::async(std::launch::async, [&, worker] {
      std::minstd_rand random(worker);
      for (std::size_t i; (i = static_cast<std::size_t>(next++)) < std::size_t(times);) {
        stops.add(stopAtOnceMs(kClasses[i % std::size(kClasses)], random));
      }
    }));
  }
  for (auto& worker : workers) worker.get();
  EXPECT_LT(stops.worst(), kDeadlineMs);
  figure("R5", "%d stops 0 to 200 us after the start beside 2 busy threads, slowest %.0f ms", times,
         stops.worst());
}

}  // namespace
}  // namespace test
