// A server and a client of one delivery mode and rate.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <memory>
#include <string>

#include "brix_tcp_server.h"
#include "delivery_mode.h"
#include "two_clients.h"

namespace test {

struct Setting {
  const char* name;
  brix::DeliveryMode mode;
  double rateMs;
};
inline const Setting kDirect{"Direct", brix::DeliveryMode::Direct, 0};

inline std::string threadName() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

template <typename Object>
void apply(const Setting& setting, Object& object) {
  object.setDeliveryMode(setting.mode);
  object.setSendRate(setting.rateMs);
  object.setRecvRate(setting.rateMs);
}

inline std::string repeated(const std::string& text, int times) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

struct Client : StateClient {
  explicit Client(const Setting& setting) {
    apply(setting, *client);
    client->setHeartbeatMode(false);
    client->registerMsgListener([this](const std::string& msg) { onMsg(msg); });
  }
  ~Client() { client.reset(); }  // before the function that it calls
  std::function<void(const std::string&)> onMsg = [](const auto&) {};
};

struct Server {
  explicit Server(const Setting& setting) { apply(setting, *server); }
  void open(const brix::ServerSafetyOptions& options = {}) {
    server->setSafetyOptions(options);
    server->registerConnectionListener([this](bool on) { links.add(on ? "on" : "off"); });
    server->registerMsgListener([this](const std::string& msg) { msgs.add(msg), onMsg(msg); });
    server->initialize(0);
    ASSERT_TRUE(server->waitUntilListening(kDeadlineMs));
    port = server->listeningPort();
  }
  void open(Client& client) {
    open();
    ASSERT_EQ(client.connect(port), 1);
    ASSERT_TRUE(has(1));
  }
  /// Waits until that many clients are known.
  bool has(std::size_t clients) const {
    return eventually([&] { return links.count("on") == clients; });
  }

  Texts links, msgs;
  std::function<void(const std::string&)> onMsg = [](const auto&) {};
  std::unique_ptr<brix::BrixTcpServer> server = std::make_unique<brix::BrixTcpServer>();
  int port = 0;
};

}  // namespace test
