// The two clients under one face.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "communication_client.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "texts.h"

namespace test {

struct AnyClient : brix::iRecieveListener {
  int connect(int port) { return connectTo("127.0.0.1", port); }
  virtual int connectTo(const std::string& ip, int port) = 0;
  virtual void disconnect() = 0;
  virtual bool connected() const = 0;
  virtual bool send(const std::string& text) = 0;
  void onReceive(const std::string& msg) override {
    if (!msg.empty()) received.add(msg);
  }
  Texts received;
};

using MaybeSafety = std::optional<brix::ClientSafetyOptions>;

struct StateClient : AnyClient {
  /// @param listener  in the place of this object
  explicit StateClient(const MaybeSafety& safety = {}, brix::iRecieveListener* listener = nullptr) {
    if (safety) client->setSafetyOptions(*safety);
    client->setPrintFlag(false);
    client->attachListener(listener != nullptr ? listener : this);
  }
  int connectTo(const std::string& ip, int port) override {
    if (std::pair(ip, port) != server) {
      client->setClientHandle(std::make_shared<brix::TcpClient>(ip, port));
      server = {ip, port};
    }
    return client->connect(ip, port, 1.0);
  }
  void disconnect() override { client->disConnect(); }
  bool connected() const override { return client->isConnected(); }
  bool send(const std::string& text) override { return client->sendMsg(text) == 1; }

  static constexpr char kName[] = "state client";
  static constexpr std::size_t kThreads = 4;
  struct Client final : brix::CommunicationClient {};
  std::pair<std::string, int> server;
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

struct CommandClient : AnyClient {
  /// @param listener  as above
  explicit CommandClient(const MaybeSafety& safety = {},
                         brix::iRecieveListener* listener = nullptr) {
    if (safety) client->setSafetyOptions(*safety);
    client->attachListener(listener != nullptr ? listener : this);
  }
  int connectTo(const std::string& ip, int port) override {
    return client->connectSocket(ip, port);
  }
  void disconnect() override { client->disConnected(); }
  bool connected() const override { return client->isConnected(); }
  bool send(const std::string& text) override { return client->send("", text, 0); }

  static constexpr char kName[] = "command client";
  static constexpr std::size_t kThreads = 4;
  struct Client final : brix::TcpClientWrapper {};
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

}  // namespace test
