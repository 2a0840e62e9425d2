// A simulated six-axis arm behind a communication server.

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "arm_simulation.h"
#include "brix_tcp_server.h"
#include "command_handler.h"
#include "communication_server.h"
#include "log_lines.h"
#include "signals.h"

namespace {

constexpr double kListenTimeoutMs = 5000.0;

struct Options {
  int port = 8055;
  int broadcastMs = 10;
  bool verbose = false;
};

void describe(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "TCP port to listen on; 0 lets the kernel choose")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--broadcast-ms", options.broadcastMs,
                 "period of the state broadcasts in milliseconds")
      ->check(CLI::Range(1, 500))
      ->capture_default_str();
  app.add_flag("--verbose", options.verbose, "show all log lines of the library");
}

int serve(const Options& options, const arm::SignalWatch& signals) {
  arm::ArmSimulation simulation;
  arm::CommandHandler commands(simulation);
  const auto transport = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server;  // last: its callbacks use what stands above
  server.setServerHandle(transport);
  server.registerRawDataBroadcastFunc(
      [&commands](const std::string& request) { return commands.answer(request); });
  server.registerBroadcastFunc([&commands] { return commands.stateBroadcast(); },
                               options.broadcastMs);

  simulation.run();
  server.initialize(options.port);
  if (!transport->waitUntilListening(kListenTimeoutMs)) {
    std::cerr << "arm_controller: cannot listen on port " << options.port
              << ": it is in use, or not allowed for this user" << std::endl;
    return 1;
  }
  std::cout << "arm_controller: listening on port " << transport->listeningPort() << std::endl;

  signals.wait();
  server.terminate();
  simulation.halt();
  std::cout << "arm_controller: ended" << std::endl;
  return 0;
}

int start(int argc, char** argv) {
  CLI::App app{"Simulated six-axis arm: answers requests and broadcasts its state over TCP."};
  Options options;
  describe(app, options);
  CLI11_PARSE(app, argc, argv);

  arm::showLogLines(options.verbose ? arm::LogShow::All : arm::LogShow::Errors);
  const arm::SignalWatch signals;
  return serve(options, signals);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return start(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "arm_controller: " << error.what() << std::endl;
    return 1;
  }
}
