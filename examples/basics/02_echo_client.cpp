// Sends one request and prints the answer.
// Usage: 02_echo_client [HOST [PORT]]. A peer: 01_echo_server, or tcpcom serve 8055 arm.json
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "brix_json.h"
#include "communication_client.h"
#include "port.h"
#include "tcp_client.h"

int main(int argc, char** argv) {
  const char* host = argc > 1 ? argv[1] : "127.0.0.1";
  const int port = argc > 2 ? portOf(argv[2]) : 8055;
  std::promise<std::string> answer;
  auto answered = answer.get_future();

  brix::CommunicationClient client;  // after what its callback uses, so that it ends before that
  client.setClientHandle(std::make_shared<brix::TcpClient>(host, port));
  bool first = true;  // of the one thread that calls the listener
  client.registerMsgListener([&](const std::string& msg) {
    const Json::Value message = brix_json::parseStr(msg);
    if (!message.isObject() || message["command"] != "echo") return;  // a broadcast, say
    if (std::exchange(first, false)) answer.set_value(msg);
  });
  if (client.connect(host, port, 1.0) != 1) return 1;

  Json::Value request;
  request["command"] = "echo";
  request["text"] = "hello";
  client.sendRequest(request);
  if (answered.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    std::fprintf(stderr, "no answer within 5 s\n");
    return 1;
  }
  std::printf("answer: %s\n", answered.get().c_str());
}
