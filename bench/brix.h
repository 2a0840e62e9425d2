/// @file
/// The library under measurement, as its users write it.
#pragma once

#include "brix_tcp_server.h"
#include "communication_client.h"
#include "communication_server.h"
#include "peer.h"
#include "tcp_client.h"

namespace bench {

constexpr double kDefaultRateMs = 0.5;

/// Rate of both pumps, and how messages are handed over.
struct Mode {
  double rateMs = kDefaultRateMs;
  brix::DeliveryMode delivery = brix::DeliveryMode::Polled;

  static Mode of(const Options& options) {
    const std::string name = options.word("mode", "default");
    if (name == "default") return {};
    if (name == "rate0") return {0, brix::DeliveryMode::Polled};
    if (name == "wake") return {kDefaultRateMs, brix::DeliveryMode::WakeOnData};
    if (name == "direct") return {0, brix::DeliveryMode::Direct};
    throw std::invalid_argument("mode: default, rate0, wake or direct");
  }
};

/// A communication server on a transport of its own.
class Server {
 public:
  explicit Server(const Mode& mode) {
    transport_->setDeliveryMode(mode.delivery);
    server_.setServerHandle(transport_);
    server_.setSendRate(mode.rateMs);
    server_.setRecvRate(mode.rateMs);
  }

  brix::CommunicationServer* operator->() { return &server_; }

  /// By the transport, whose queue waits for clients: the server itself drops a text that comes
  /// before it has heard of the first one.
  void publish(const std::string& text) { transport_->sendMsg(text); }

  /// @return the port
  int start(Arrivals& clients) {
    server_.registerConnectionListener([&clients](bool came) {
      if (came) clients.add(1);
    });
    server_.initialize(0);
    if (!transport_->waitUntilListening(2000)) throw std::runtime_error("cannot listen");
    return transport_->listeningPort();
  }

 private:
  std::shared_ptr<brix::BrixTcpServer> transport_ = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server_;
};

/// Final, so that it may be deleted through a pointer.
class Client final : public brix::CommunicationClient {};

/// The heartbeat stays away from the figures: a server of these programs does not answer it.
inline std::unique_ptr<Client> connectedClient(const Mode& mode, int port,
                                               const Peer::OnText& onText) {
  auto client = std::make_unique<Client>();
  client->setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", port));
  client->setPrintFlag(false);
  client->setHeartbeatMode(false);
  client->setDeliveryMode(mode.delivery);
  client->setSendRate(mode.rateMs);
  client->setRecvRate(mode.rateMs);
  client->registerMsgListener([onText](const std::string& text) { onText(text); });
  if (client->connect("127.0.0.1", port, 1.0) != 1) throw std::runtime_error("cannot connect");
  return client;
}

class BrixPeer : public Peer {
 public:
  explicit BrixPeer(const Options& options) : mode_(Mode::of(options)), server_(mode_) {}

  int serve(Answer answer) override {
    server_->registerRawDataBroadcastFunc(
        [answer = std::move(answer)](const std::string& text) { return answer(text); });
    port_ = server_.start(clients_);
    return port_;
  }

  void connect(int clients, OnText onText) override {
    for (int i = 0; i < clients; ++i) {
      connections_.push_back(connectedClient(mode_, port_, onText));
      awaitClients(i + 1);  // a client gives up after a second, a full backlog costs one
    }
  }

  void send(int client, const std::string& text) override {
    connections_[static_cast<std::size_t>(client)]->sendMsg(text);
  }
  void publish(const std::string& text) override { server_.publish(text); }
  void stop() override { server_->terminate(); }

 private:
  const Mode mode_;
  int port_ = 0;
  Server server_;
  std::vector<std::unique_ptr<Client>> connections_;
};

}  // namespace bench
