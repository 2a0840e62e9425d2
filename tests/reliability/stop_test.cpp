// Stops at every moment.

#include <gtest/gtest.h>

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

/// One object of the library that is to be stopped, with what is at its other end.
struct Subject {
  virtual ~Subject() = default;
  virtual void start() = 0;
  /// @return a connected peer
  virtual RawSocket peer() = 0;
  virtual void emit(const std::string& text) = 0;
  /// Called once inside a callback of the object.
  virtual void setCallback(Action action) = 0;
  virtual void setRatesOfAMinute() {}
  /// A client connects to a port that does not answer.
  virtual void connectInVain() {}
  /// @return the port of a server
  virtual int port() { return 0; }
  virtual void stop() = 0;
  virtual void destroy() = 0;
  double fixedPauseMs = 0;

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
  void setCallback(Action action) override {
    server->server.registerMsgListener([call = once(std::move(action))](auto&&) { call(); });
  }
  void setRatesOfAMinute() override {
    server->server.setSendRate(kMinuteMs);
    server->server.setRecvRate(kMinuteMs);
  }
};

struct CommandServerSubject : ServerSubject<CommandServer>, brix::iRecieveListener {
  void setCallback(Action action) override {
    call = once(std::move(action));
    server->server.attachListener(this);
  }
  void onReceive(const std::string&) override { call(); }
  Action call;
};

struct WrapperSubject : Subject {
  WrapperSubject() { fixedPauseMs = 1000; }
  void start() override {
    server->registerBroadcastFunc([] { return Json::Value(1); }, rateMs);
    server->init(0);
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
  void start() override {
    server->setServerHandle(transport);
    server->registerBroadcastFunc([] { return std::string("state"); }, rateMs);
    server->initialize(0);
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

template <typename Client>
struct ClientSubject : Subject, brix::iRecieveListener {
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
  void connectInVain() override {
    const RawListener full(0);
    const std::vector<RawSocket> waiting = fill(full.port());
    EXPECT_EQ(client->connect(full.port()), -1);
  }
  void stop() override { client->disconnect(); }
  void destroy() override { client.reset(); }
  RawListener door;
  Action call;
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

struct StateClientSubject : ClientSubject<StateClient> {
  void setRatesOfAMinute() override {
    client->client->setSendRate(kMinuteMs);
    client->client->setRecvRate(kMinuteMs);
  }
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
  return std::make_shared<Traffic>([first, port = subject.port()] {
    if (port != 0) RawSocket::connectTo(port).reset();
  });
}

Situation endedByItsCallback(void (Subject::*end)()) {
  return [end](Subject& subject) {
    const auto ended = std::make_shared<std::promise<void>>();
    subject.setCallback([ended, end, &subject] {
      EXPECT_LT(timedMs([&] { (subject.*end)(); }), kStopBoundMs + subject.fixedPauseMs);
      ended->set_value();
    });
    RawSocket peer = subject.peer();
    peer.send(kMessage);
    EXPECT_TRUE(ready(*ended));
    return keep(std::move(peer));
  };
}

std::shared_ptr<void> whileConnecting(Subject& subject) {
  return std::make_shared<std::future<void>>(
      std::async(std::launch::async, [&subject] { subject.connectInVain(); }));
}

constexpr char kConnecting[] = "during connect", kMinuteRate[] = "rate of a minute",
               kDestroyed[] = "destroyed by its callback";

struct Class {
  const char* name;
  std::function<std::unique_ptr<Subject>()> make;
};
template <typename Made>
Class classOf(const char* name) {
  return {name, [] { return std::make_unique<Made>(); }};
}
const Class kClasses[] = {classOf<StateServerSubject>("BrixTcpServer"),
                          classOf<CommandServerSubject>("TcpServer"),
                          classOf<WrapperSubject>("TcpServerWrapper"),
                          classOf<CommunicationServerSubject>("CommunicationServer"),
                          classOf<StateClientSubject>("CommunicationClient"),
                          classOf<ClientSubject<CommandClient>>("TcpClientWrapper")};

const std::pair<const char*, Situation> kSituations[] = {
    {"idle", [](Subject&) { return nullptr; }},
    {"connected", connectedIdle},
    {"silent peer", connectedSilently},
    {"full buffers", withFullBuffers},
    {"mid-burst", inABurst},
    {"accept storm", inAStormOfConnections},
    {"own callback", endedByItsCallback(&Subject::stop)},
    {kDestroyed, endedByItsCallback(&Subject::destroy)},
    {kConnecting, whileConnecting},
    {kMinuteRate, connectedSilently}};

/// @return milliseconds beyond what the class pauses on purpose
double stopMs(const Class& of, const std::string& name, const Situation& situation) {
  const auto subject = of.make();
  if (name == kMinuteRate) subject->setRatesOfAMinute();
  subject->start();
  auto kept = situation(*subject);
  const double stopped = name == kDestroyed ? 0 : timedMs([&] { subject->stop(); });
  if (name == kConnecting) kept.reset();  // nobody destroys a client that another thread uses
  return stopped + timedMs([&] { subject->destroy(); }) - subject->fixedPauseMs;
}

TEST(Stops, AreShortInEverySituation) {
  const LogCapture log;
  const int times = volume(20, 20);
  for (const Class& of : kClasses) {
    double worstMs = 0;
    const char* worst = "";
    for (const auto& [name, situation] : kSituations) {
      std::vector<std::future<double>> stops;
      for (int i = 0; i < times; ++i) {
        stops.push_back(std::async(std::launch::async, stopMs, of, name, situation));
        if (i % 4 != 3 && i + 1 < times) continue;  // a few at a time
        for (auto& stop : stops) {
          const double ms = stop.get();
          EXPECT_LT(ms, kStopBoundMs) << of.name << ", " << name;
          if (ms > worstMs) worstMs = ms, worst = name;
        }
        stops.clear();
      }
    }
    figure("R4", "%s: %zu situations, %d stops each, slowest %.0f ms (%s)", of.name,
           std::size(kSituations), times, worstMs, worst);
  }
}

TEST(Stops, RightAfterTheStartNeverHang) {
  const LogCapture log;
  const int times = volume(5000, 1000);
  const Traffic burners([] {});
  std::atomic<int> next{0};
  std::vector<std::future<double>> workers;
  for (unsigned worker = 0; worker < 8; ++worker) {
    workers.push_back(
        std::async(std::launch::async, [&, random = std::minstd_rand(worker)]() mutable {
          double worstMs = 0;
          for (int i; (i = next++) < times;) {
            const auto subject = kClasses[static_cast<std::size_t>(i) % std::size(kClasses)].make();
            if (subject->fixedPauseMs > 0) continue;  // its stop pauses: not right after anything
            const auto start = Clock::now();
            subject->start();
            while (elapsedMs(start) * 1000 < static_cast<double>(random() % 200)) {
            }
            worstMs = std::max(worstMs, timedMs([&] { subject->destroy(); }));
          }
          return worstMs;
        }));
  }
  double worstMs = 0;
  for (auto& worker : workers) worstMs = std::max(worstMs, worker.get());
  EXPECT_LT(worstMs, kDeadlineMs);
  figure("R5", "%d stops 0 to 200 us after the start beside 2 busy threads, slowest %.0f ms", times,
         worstMs);
}

}  // namespace
}  // namespace test
