// A server that publishes its state each 10 ms and takes no requests.
// Usage: 03_state_broadcast [PORT]. Try: tcpcom watch 127.0.0.1:8055 --plot joints_deg.0
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "brix_json.h"
#include "brix_tcp_server.h"
#include "communication_server.h"
#include "port.h"
#include "signals.h"

namespace {

std::string stateText(int count) {
  Json::Value state;
  state["command"] = "state";
  state["count"] = count;  // an integer: other numbers go out with 6 significant digits
  state["joints_deg"].append(90 * std::sin(count * 0.01));
  state["joints_deg"].append(45 * std::cos(count * 0.01));
  return brix_json::toStrWithoutIndentation(state, brix_json::kPrecision);
}

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? portOf(argv[1]) : 8055;
  const arm::SignalWatch signals;
  const auto transport = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server;
  server.setServerHandle(transport);
  // Only the broadcast thread calls it, so the count needs no lock.
  server.registerBroadcastFunc([count = 0]() mutable { return stateText(count++); }, 10.0);
  server.initialize(port);
  if (!transport->waitUntilListening(2000)) return 1;
  std::printf("listening on 127.0.0.1:%d\n", transport->listeningPort());
  std::fflush(stdout);
  signals.wait();
  server.terminate();
}
