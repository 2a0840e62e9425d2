// A simulated six-axis arm behind a communication server and a command server.

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "arm_simulation.h"
#include "brix_json.h"
#include "brix_tcp_server.h"
#include "command_handler.h"
#include "communication_server.h"
#include "run_main.h"
#include "state_broadcast.h"
#include "tcp_server_wrapper.h"

namespace {

constexpr char kName[] = "arm_controller";
constexpr double kListenTimeoutMs = 5000.0;

struct Options {
  int port = 8055;
  int commandPort = 8056;
  int broadcastMs = 10;
};

void describe(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "TCP port of the state family; 0 lets the kernel choose")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--command-port", options.commandPort,
                 "TCP port of the command family; 0 lets the kernel choose")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--broadcast-ms", options.broadcastMs,
                 "period of the state broadcasts in milliseconds")
      ->check(CLI::Range(1, 500))
      ->capture_default_str();
}

/// The state family: requests and states as texts.
class StateService {
 public:
  StateService(const arm::ArmSimulation& simulation, const arm::CommandHandler& commands,
               int broadcastMs)
      : states_(simulation) {
    server_.setServerHandle(transport_);
    server_.registerRawDataBroadcastFunc(
        [&commands](const std::string& request) { return commands.answer(request); });
    server_.registerBroadcastFunc(
        [this] {
          return brix_json::toStrWithoutIndentation(states_.next(), brix_json::kPrecision);
        },
        broadcastMs);
  }

  bool listen(int port) {
    server_.initialize(port);
    return transport_->waitUntilListening(kListenTimeoutMs);
  }

  int port() const { return transport_->listeningPort(); }

 private:
  arm::StateBroadcast states_;
  std::shared_ptr<brix::BrixTcpServer> transport_ = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server_;  // last: its callbacks use what stands above
};

/// The command family: the same requests and states as JSON values.
class CommandService {
 public:
  CommandService(const arm::ArmSimulation& simulation, const arm::CommandHandler& commands,
                 int broadcastMs)
      : states_(simulation), server_(-1) {
    auto handlers = commands.handlers();
    server_.setHandleMap(handlers);
    server_.registerBroadcastFunc([this] { return states_.next(); }, broadcastMs);
  }

  // Without it the server's destructor would wait for somebody else to end the broadcasts.
  ~CommandService() { server_.quit(); }

  bool listen(int port) {
    server_.init(port);
    return server_.waitUntilListening(kListenTimeoutMs);
  }

  int port() const { return server_.listeningPort(); }

 private:
  arm::StateBroadcast states_;
  brix::TcpServerWrapper server_;  // last: its callbacks use what stands above
};

/// @return whether the service listens; says so, for scripts to read
template <typename Service>
bool listen(Service& service, const char* family, int port) {
  if (!service.listen(port)) {
    std::cerr << kName << ": cannot listen on port " << port
              << ": it is in use, or not allowed for this user" << std::endl;
    return false;
  }
  std::cout << kName << ": " << family << " family listens on port " << service.port() << std::endl;
  return true;
}

int serve(const Options& options, const arm::SignalWatch& signals) {
  arm::ArmSimulation simulation;
  arm::CommandHandler commands(simulation);
  {
    StateService states(simulation, commands, options.broadcastMs);
    CommandService command(simulation, commands, options.broadcastMs);
    simulation.run();
    if (!listen(states, "state", options.port)) return 1;
    if (!listen(command, "command", options.commandPort)) return 1;
    signals.wait();
  }
  std::cout << kName << ": ended" << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  return arm::runMain(
      argc, argv,
      {kName,
       "Simulated six-axis arm: answers requests and broadcasts its state over TCP, "
       "for two families of clients.",
       [&options](CLI::App& app) { describe(app, options); },
       [&options](const arm::SignalWatch& signals, bool /*verbose*/) {
         return serve(options, signals);
       }});
}
