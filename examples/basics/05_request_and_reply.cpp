// Sends a command and waits for its own reply, among broadcasts and other clients' replies.
// Usage: 05_request_and_reply HOST PORT COMMAND. A peer: tcpcom serve 8056 arm.json
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "brix_json.h"
#include "command_envelope.h"
#include "port.h"
#include "tcp_client_wrapper.h"

namespace {

/// One request at a time; a server that echoes "id" is needed.
class Requester : public brix::iRecieveListener {
 public:
  /// @return the reply, or null if none came in time
  Json::Value request(brix::TcpClientWrapper& client, const std::string& command) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaitedId_ = std::to_string(getpid()) + "-" + std::to_string(++count_);
    awaitedCommand_ = command;
    reply_ = Json::Value();
    Json::Value request;
    request["command"] = command;
    request["id"] = awaitedId_;
    const auto text = brix_json::toStrWithoutIndentation(request, brix_json::kPrecision);
    if (!client.send(command, text, 0)) return {};
    arrived_.wait_for(lock, std::chrono::seconds(5), [this] { return !reply_.isNull(); });
    return reply_;
  }

  /// Called on the client's broadcast thread.
  void onReceive(const std::string& msg) override {
    const Json::Value message = brix_json::parseStr(msg);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!message.isObject() || !isAwaited(message)) return;
    reply_ = message;
    arrived_.notify_one();
  }

 private:
  /// A rejection echoes nothing but the command.
  bool isAwaited(const Json::Value& message) const {
    const bool rejected = message["code"] == brix::envelope::kCodeRejected;
    return rejected ? message["command"] == awaitedCommand_ : message["id"] == awaitedId_;
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string awaitedCommand_, awaitedId_;
  Json::Value reply_;
  int count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s HOST PORT COMMAND\n", argv[0]);
    return 2;
  }
  const int port = portOf(argv[2]);
  Requester requester;            // outlives the client that calls it
  brix::TcpClientWrapper client;  // beats by itself, and takes a silent link for dead
  client.attachListener(&requester);
  if (client.connectSocket(argv[1], port) != 1) return 1;
  const Json::Value reply = requester.request(client, argv[3]);
  if (reply.isNull()) {
    std::fprintf(stderr, "no reply within 5 s\n");
    return 1;
  }
  const auto text = brix_json::toStrWithoutIndentation(reply, brix_json::kPrecision);
  std::printf("reply: %s\n", text.c_str());
  return reply["code"] == 1 ? 0 : 1;
}
