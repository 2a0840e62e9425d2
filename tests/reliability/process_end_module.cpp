// A plug-in that uses the library; its host, which does not know the library, loads and unloads it.
#include <memory>

#include "brix_tcp_server.h"
#include "communication_client.h"
#include "communication_server.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "tcp_server_wrapper.h"

namespace {

constexpr double kDeadlineMs = 20000;

// No callback: its code would go with the module.
struct Objects {
  Objects() : commands(-1) {
    states.setServerHandle(wire);
    states.initialize(0);
    commands.init(0);
    ok = wire->waitUntilListening(kDeadlineMs) && commands.waitUntilListening(kDeadlineMs);
    const int port = wire->listeningPort();
    client.setClientHandle(Client(new brix::TcpClient("127.0.0.1", port)));
    ok = ok && client.connect("127.0.0.1", port, 1) == 1 &&
         wrapped.connectSocket("127.0.0.1", commands.listeningPort()) == 1;
  }
  ~Objects() { commands.quit(); }
  bool ok = false;
  // Not by make_shared, which has a symbol that keeps a module from being unloaded.
  using Client = std::shared_ptr<brix::TcpClient>;
  std::shared_ptr<brix::BrixTcpServer> wire{new brix::BrixTcpServer};
  brix::CommunicationServer states;
  brix::TcpServerWrapper commands;
  brix::TcpClientWrapper wrapped;
  brix::CommunicationClient client;
};

}  // namespace

/// @return objects, alive; null if one of them does not work
extern "C" __attribute__((visibility("default"))) void* makeObjects() {
  auto objects = std::make_unique<Objects>();
  return objects->ok ? objects.release() : nullptr;
}

extern "C" __attribute__((visibility("default"))) void destroyObjects(void* objects) {
  delete static_cast<Objects*>(objects);
}
