// The classes of the library that are stopped, under one face.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "communication_server.h"
#include "raw_socket.h"
#include "tcp_server_wrapper.h"
#include "two_clients.h"
#include "two_servers.h"

namespace test {

using Action = std::function<void()>;
inline constexpr double kMinuteMs = 60000;
inline constexpr double kConnectMs = 1000;  // what a client waits for an answer

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
inline std::vector<RawSocket> fill(int port) {
  std::vector<RawSocket> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    ::connect(waiting.back().fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  return waiting;
}

/// @return how many connects to the port have no answer yet
inline int unanswered(int port) {
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

}  // namespace test
