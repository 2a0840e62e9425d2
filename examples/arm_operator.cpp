// Plays a motion program on an arm controller, or only watches it.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "inbox.h"
#include "link.h"
#include "log_lines.h"
#include "player.h"
#include "program.h"
#include "progress.h"
#include "run_main.h"
#include "signals.h"

namespace {

using namespace std::chrono_literals;

constexpr char kName[] = "arm_operator";
constexpr char kCommandFamily[] = "command";
constexpr int kSignalStatusBase = 128;  // as shells report an end by a signal
constexpr auto kPoll = 20ms;            // how late a signal may be seen
constexpr auto kWatchLinePeriod = 1s;

struct Options {
  std::string host;
  int port = 0;
  std::string program;
  bool watch = false;
  std::string family = "state";
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
  app.add_option("PORT", options.port, "TCP port of the family at the controller")
      ->required()
      ->check(CLI::Range(1, 65535));
  CLI::Option_group* task = app.add_option_group("Task", "What to do");
  task->add_option("PROGRAM", options.program, "motion program to play, one JSON request a line");
  task->add_flag("--watch", options.watch,
                 "only watch, until a signal comes or the connection ends");
  task->require_option(1);
  app.add_option("--family", options.family, "family that the port belongs to")
      ->check(CLI::IsMember({"state", kCommandFamily}))
      ->capture_default_str();
}

int play(arm::Player& player, const std::vector<arm::ProgramStep>& steps) {
  arm::Progress progress(steps.size());
  int status = 0;
  try {
    player.play(steps, progress);
    progress.clear();
  } catch (const arm::PlayError& error) {
    progress.clear();
    std::cerr << kName << ": " << error.what() << std::endl;
    status = 1;
  } catch (const arm::Interrupted& interrupted) {
    progress.clear();
    std::cerr << kName << ": interrupted" << std::endl;
    status = kSignalStatusBase + interrupted.signal;
  }
  if (status != 0) player.haltArm();
  return status;
}

// Tells from time to time how far it has come, so that scripts can wait for that.
void watch(arm::Link& link, arm::Inbox& inbox, const arm::SignalWatch& signals) {
  auto nextLine = arm::Clock::now();
  while (link.isConnected() && signals.poll() == 0) {
    inbox.waitForNews(kPoll);
    const arm::BroadcastCount seen = inbox.broadcasts();
    if (seen.received == 0 || arm::Clock::now() < nextLine) continue;
    std::cout << kName << ": watching, broadcast " << seen.last << std::endl;
    nextLine = arm::Clock::now() + kWatchLinePeriod;
  }
}

int run(const Options& options, const arm::SignalWatch& signals, bool verbose) {
  std::vector<arm::ProgramStep> steps;
  if (!options.watch) steps = arm::loadProgram(options.program);
  const std::string host = options.host == "localhost" ? "127.0.0.1" : options.host;
  const auto family = options.family == kCommandFamily ? arm::Family::Command : arm::Family::State;

  arm::Inbox inbox;  // outlives the link, whose thread calls it
  const auto link = arm::connectLink(family, host, options.port, inbox, verbose);
  int status = 0;
  if (options.watch) {
    watch(*link, inbox, signals);
    std::cout << arm::formatLine(inbox.broadcasts()) << std::endl;
  } else {
    arm::Player player(*link, inbox, signals);
    status = play(player, steps);
    const arm::Report report = player.report();
    std::cout << arm::formatTable(report) << arm::formatLine(report.broadcasts) << std::endl;
  }
  // The clients report the end of their threads as errors, also the end that is asked for here.
  if (!verbose) arm::showLogLines(arm::LogShow::Nothing);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  return arm::runMain(
      argc, argv,
      {kName,
       "Plays a motion program on an arm controller, or watches it, and reports what it measured.",
       [&options](CLI::App& app) { describe(app, options); },
       [&options](const arm::SignalWatch& signals, bool verbose) {
         return run(options, signals, verbose);
       }});
}
