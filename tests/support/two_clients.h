// The two clients under one face.
#pragma once

#include <memory>
#include <string>

#include "communication_client.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "texts.h"

namespace test {

struct Receiver : brix::iRecieveListener {
  void onReceive(const std::string& msg) override {
    if (!msg.empty()) received.add(msg);
  }
  Texts received;
};

struct StateClient : Receiver {
  StateClient() {
    client->setPrintFlag(false);
    client->attachListener(this);
  }
  int connect(int port) {
    client->setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", port));
    return client->connect("127.0.0.1", port, 1.0);
  }
  void disconnect() const { client->disConnect(); }
  bool connected() const { return client->isConnected(); }
  bool send(const std::string& text) const { return client->sendMsg(text) == 1; }

  static constexpr char kName[] = "state client";
  static constexpr std::size_t kThreads = 4;
  struct Client final : brix::CommunicationClient {};
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

struct CommandClient : Receiver {
  CommandClient() { client->attachListener(this); }
  int connect(int port) const { return client->connectSocket("127.0.0.1", port); }
  void disconnect() const { client->disConnected(); }
  bool connected() const { return client->isConnected(); }
  bool send(const std::string& text) const { return client->send("", text, 0); }

  static constexpr char kName[] = "command client";
  static constexpr std::size_t kThreads = 4;
  struct Client final : brix::TcpClientWrapper {};
  std::unique_ptr<Client> client = std::make_unique<Client>();
};

}  // namespace test
