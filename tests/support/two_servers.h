// The two servers under one face.
#pragma once

#include <memory>
#include <string>

#include "brix_tcp_server.h"
#include "tcp_server.h"
#include "tcp_server_sender.h"
#include "texts.h"
#include "wait.h"

namespace test {

struct StateServer {
  bool start(const brix::ServerSafetyOptions& options = {}) {
    listenAnew();
    server.registerConnectionListener([this](bool any) { links.add(any ? "on" : "off"); });
    if (!server.setSafetyOptions(options)) return false;
    server.initialize(0);
    return server.waitUntilListening(kDeadlineMs);
  }
  void listenAnew() {
    server.registerMsgListener([this](const std::string& msg) { received.add(msg); });
  }
  void broadcast(const std::string& text) { server.sendMsg(text); }
  int port() const { return server.listeningPort(); }
  void stop() { server.terminateServer(); }
  ~StateServer() { stop(); }

  static constexpr char kName[] = "state server";
  Texts received, links;
  brix::BrixTcpServer server;
};

struct CommandServer : brix::iRecieveListener {
  bool start(const brix::ServerSafetyOptions& options = {}) {
    server.attachListener(this);
    server.attachConnectionListener([told = told_](bool any) { told->add(any ? "on" : "off"); });
    if (!server.setSafetyOptions(options)) return false;
    server.createSocket(0);
    return server.waitUntilListening(kDeadlineMs);
  }
  void onReceive(const std::string& msg) override { received.add(msg); }
  void listenAnew() {}  // its listeners only become more
  void broadcast(const std::string& text) { server.sendMsgs(text + "\r\n"); }
  int port() const { return server.listeningPort(); }
  void stop() { server.quit(); }
  ~CommandServer() override {
    TcpServerBroadcaster::getInstance().setConnectionListener({});
    stop();
  }

  static constexpr char kName[] = "command server";

 private:
  // The sender is the process's: a call of it that has begun may outlive this.
  const std::shared_ptr<Texts> told_ = std::make_shared<Texts>();

 public:
  Texts received, &links = *told_;
  brix::TcpServer server{-1};
};

}  // namespace test
