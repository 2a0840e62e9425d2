// A server that answers each request with the request itself.
// Usage: 01_echo_server [PORT]. Try: tcpcom request 127.0.0.1:8055 hello
#include <cstdio>
#include <memory>
#include <string>

#include "brix_tcp_server.h"
#include "communication_server.h"
#include "port.h"
#include "signals.h"

int main(int argc, char** argv) {
  const int port = argc > 1 ? portOf(argv[1]) : 8055;
  const arm::SignalWatch signals;  // first: the server's threads inherit what it blocks
  const auto transport = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server;
  server.setServerHandle(transport);
  server.registerRawDataBroadcastFunc([](const std::string& request) { return request; });
  server.initialize(port);
  if (!transport->waitUntilListening(2000)) return 1;
  std::printf("listening on 127.0.0.1:%d\n", transport->listeningPort());
  std::fflush(stdout);
  signals.wait();
  server.terminate();
}
