// JSON commands by name, and a broadcast of what they change.
// Usage: 04_command_server [PORT]. Try: tcpcom request 127.0.0.1:8056 move '{"joint_deg": 30}'
#include <atomic>
#include <cstdio>

#include "port.h"
#include "signals.h"
#include "tcp_server_wrapper.h"

namespace {

class Joint {
 public:
  /// Handlers run on a thread for each client, several at once: hence the atomic.
  Json::Value move(const Json::Value& request) {
    const double target = request["joint_deg"].asDouble();  // throws if it is no number
    Json::Value reply;
    reply["command"] = request["command"];
    reply["id"] = request["id"];  // replies reach every client: this tells whose it is
    if (target < -120 || target > 120) {
      reply["error"] = "beyond the joint's limit of 120 deg";  // "code" and "msg" are not ours
    } else {
      angleDeg_ = target;
    }
    return reply;
  }

  Json::Value state() const {
    Json::Value state;
    state["command"] = "state";
    state["joint_deg"] = angleDeg_.load();
    return state;
  }

 private:
  std::atomic<double> angleDeg_{0};
};

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? portOf(argv[1]) : 8056;
  const arm::SignalWatch signals;
  Joint joint;
  brix::TcpServerWrapper server(-1);  // the port is opened below, when all is in place
  brix::TcpServerWrapper::ObjectHandlerMap handlers;
  handlers["move"] = [&](const Json::Value& request) { return joint.move(request); };
  server.setHandleMap(handlers);
  server.registerBroadcastFunc([&] { return joint.state(); }, 20);
  server.init(port);
  const bool listening = server.waitUntilListening(2000);
  if (listening) {
    std::printf("listening on 127.0.0.1:%d\n", server.listeningPort());
    std::fflush(stdout);
    signals.wait();
  }
  server.quit();  // always: the destructor waits for it
  return listening ? 0 : 1;
}
