// Plays a motion program on an arm controller.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "communication_client.h"
#include "inbox.h"
#include "log_lines.h"
#include "player.h"
#include "program.h"
#include "progress.h"
#include "signals.h"
#include "tcp_client.h"

namespace {

constexpr double kConnectTimeoutS = 1.0;
constexpr int kSignalStatusBase = 128;  // as shells report an end by a signal

struct Options {
  std::string host;
  int port = 0;
  std::string program;
  bool verbose = false;
};

// The client socket takes any text for an address and would talk to this machine instead.
std::string hostProblem(const std::string& host) {
  in_addr address{};
  if (host == "localhost" || inet_pton(AF_INET, host.c_str(), &address) == 1) return "";
  return "\"" + host + "\" is neither a dotted IPv4 address nor localhost";
}

void describe(CLI::App& app, Options& options) {
  app.add_option("HOST", options.host, "dotted IPv4 address of the controller, or localhost")
      ->required()
      ->check(hostProblem);
  app.add_option("PORT", options.port, "TCP port of the controller")
      ->required()
      ->check(CLI::Range(1, 65535));
  app.add_option("PROGRAM", options.program, "motion program, one JSON request a line")->required();
  app.add_flag("--verbose", options.verbose, "show all log lines of the library");
}

int playAll(arm::Player& player, const std::vector<arm::ProgramStep>& steps) {
  arm::Progress progress(steps.size());
  int status = 0;
  try {
    player.play(steps, progress);
    progress.clear();
  } catch (const arm::PlayError& error) {
    progress.clear();
    std::cerr << "arm_operator: " << error.what() << std::endl;
    status = 1;
  } catch (const arm::Interrupted& interrupted) {
    progress.clear();
    std::cerr << "arm_operator: interrupted" << std::endl;
    status = kSignalStatusBase + interrupted.signal;
  }
  if (status != 0) player.haltArm();
  return status;
}

int run(const Options& options, const arm::SignalWatch& signals) {
  const std::vector<arm::ProgramStep> steps = arm::loadProgram(options.program);
  const std::string host = options.host == "localhost" ? "127.0.0.1" : options.host;

  arm::Inbox inbox;  // outlives the client, whose thread calls it
  brix::CommunicationClient client;
  client.setClientHandle(std::make_shared<brix::TcpClient>(host, options.port));
  client.setPrintFlag(options.verbose);
  client.attachListener(&inbox);
  if (client.connect(host, options.port, kConnectTimeoutS) != 1) {
    std::cerr << "arm_operator: cannot connect to " << host << ":" << options.port
              << ": no server accepts there" << std::endl;
    return 1;
  }

  arm::Player player(client, inbox, signals);
  const int status = playAll(player, steps);
  // The client reports the end of its threads as errors, also the end that is asked for here.
  if (!options.verbose) arm::showLogLines(arm::LogShow::Nothing);
  client.disConnect();
  std::cout << arm::formatTable(player.report()) << std::flush;
  return status;
}

int start(int argc, char** argv) {
  CLI::App app{"Plays a motion program on an arm controller and reports what it measured."};
  Options options;
  describe(app, options);
  CLI11_PARSE(app, argc, argv);

  arm::showLogLines(options.verbose ? arm::LogShow::All : arm::LogShow::Errors);
  const arm::SignalWatch signals;
  return run(options, signals);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return start(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "arm_operator: " << error.what() << std::endl;
    return 1;
  }
}
