// tcpcom serve: a mock controller.

#include <algorithm>
#include <memory>

#include "brix_log.h"
#include "command_line.h"
#include "mock_server.h"
#include "relay.h"
#include "viewers.h"

namespace tcpcom {
namespace {

// Small, so that a client soon notices that it is read slowly.
constexpr int kSlowReadBufferBytes = 4096;

constexpr char kStateFamily[] = "state", kCommandFamily[] = "command";

struct ServeOptions {
  std::string address;
  std::string script;
  std::string family = kCommandFamily;
  std::vector<std::string> faults;
  std::uint32_t seed = 1;
};

/// The library's lines, for as long as this lives.
class LibraryLog {
 public:
  explicit LibraryLog(const Output& out, bool verbose) {
    brix_log::setSink([&out, verbose](brix::LogLevel level, const std::string& text) {
      if (verbose || level == brix::LogLevel::Error) out.note(text);
    });
  }
  ~LibraryLog() {
    brix_log::setSink([](brix::LogLevel, const std::string&) {});
  }
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;
};

/// The script's broadcasts, each in its period.
class Broadcaster {
 public:
  Broadcaster(const std::vector<MockBroadcast>& broadcasts, MockServer& server) : server_(server) {
    for (const MockBroadcast& broadcast : broadcasts) plans_.push_back({broadcast, Clock::now()});
  }

  TimePoint due() const {
    TimePoint due = kNever;
    for (const Plan& plan : plans_) due = std::min(due, plan.due);
    return due;
  }

  void sendDue() {
    const TimePoint now = Clock::now();
    for (Plan& plan : plans_) {
      if (now < plan.due) continue;
      server_.broadcast(plan.broadcast.rendered(plan.count++));
      // What a pause of the whole machine held up is not sent in a burst.
      plan.due = std::max(after(plan.broadcast.periodMs / 1000, plan.due), now);
    }
  }

 private:
  struct Plan {
    MockBroadcast broadcast;
    TimePoint due;
    std::int64_t count = 0;
  };

  MockServer& server_;
  std::vector<Plan> plans_;
};

std::vector<Fault> parseFaults(const std::vector<std::string>& texts) {
  std::vector<Fault> faults;
  faults.reserve(texts.size());
  for (const std::string& text : texts) faults.push_back(parseFault(text));
  return faults;
}

/// The library's server of the family answers; a relay before it shows the faults, which no right
/// server would, and tells of the requests.
Status serve(const Run& run, const ServeOptions& options) {
  const auto faults = parseFaults(options.faults);
  const MockScript script = options.script.empty() ? MockScript() : loadScript(run, options.script);
  const Address address = parseListening(options.address);
  const LibraryLog log(run.out, run.settings.verbose);
  const bool slow = std::any_of(faults.begin(), faults.end(), [](const Fault& fault) {
    return fault.kind == FaultKind::SlowRead;
  });
  const Listener listener(run, address, slow ? kSlowReadBufferBytes : 0);
  const auto server =
      startMockServer(options.family == kStateFamily ? Family::State : Family::Command, script);
  Lister lister(run.out);
  Relay relay(listener, server->port(), faults, options.seed, [&](const std::string& text) {
    lister.show({text, Clock::now()});
  });
  Broadcaster broadcaster(script.broadcasts, *server);
  while (true) {
    std::vector<pollfd> entries;
    relay.addEntries(entries);
    const Wake wake = run.waiter.wait(entries, std::min(broadcaster.due(), relay.due()));
    if (wake != Wake::Ready && wake != Wake::TimedOut) return endedBy(wake, Status::Done);
    broadcaster.sendDue();
    relay.handle(entries.data());
  }
}

constexpr char kFaultHelp[] =
    "Faults, NAME[=VALUE][@TIME]; each begins when TIME has passed since a client connected:\n"
    "  silent           sends nothing more, and keeps the connection\n"
    "  delay=200ms      sends each message that much later\n"
    "  drop=5%          leaves so many of the messages out, by chance\n"
    "  half-message     sends half of one message, and ends the connection\n"
    "  slow-read=1000   reads so many bytes a second\n"
    "  close            ends the connection\n";

}  // namespace

void addServe(CommandLine& line) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App& command = line.addCommand(
      {"serve", "A mock controller: answers by a script, broadcasts, and shows faults.",
       "Prints the requests as they come. The port is told on standard error.\n\n" +
           std::string(kScriptFormat) + '\n' + kFaultHelp,
       "  tcpcom serve 8056 arm.json\n"
       "  tcpcom serve 0.0.0.0:8055 arm.json --family state\n"
       "  tcpcom serve 0 --fault silent@10s --fault delay=200ms\n"},
      [options](const Run& run) { return serve(run, *options); });
  addListening(command, options->address);
  command
      .add_option("SCRIPT", options->script,
                  "the script's file; without it only heartbeats are answered")
      ->type_name("");
  command.add_option("--family", options->family, "whose server answers, default command")
      ->type_name("state|command")
      ->check(CLI::IsMember({kStateFamily, kCommandFamily}).description(""));
  command.add_option("--fault", options->faults, "shows a fault; may be given again")
      ->type_name("FAULT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
  command.add_option("--seed", options->seed, "of what happens by chance, default 1")
      ->type_name("NUMBER");
}

}  // namespace tcpcom
