// tcpcom doctor: what this machine allows a controller.

#include <sched.h>
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <memory>

#include "command_line.h"
#include "json_text.h"
#include "port_holders.h"
#include "text_format.h"

namespace tcpcom {
namespace {

constexpr rlim_t kEnoughDescriptors = 4096, kEnoughThreads = 1000;
constexpr long kUsualSlackNs = 50000;
constexpr unsigned kSysNice = 23;  // number of the capability

struct Finding {
  const char* check;
  bool good;
  std::string text;
  std::string advice;  // shown if it is not good
};

std::string limitText(rlim_t limit) {
  return limit == RLIM_INFINITY ? "unlimited" : std::to_string(limit);
}

rlimit limitOf(__rlimit_resource_t resource) {
  rlimit limit{};
  getrlimit(resource, &limit);  // cannot fail with a known resource
  return limit;
}

std::string softAndHard(const rlimit& limit) {
  return limitText(limit.rlim_cur) + ", may be raised to " + limitText(limit.rlim_max);
}

long numberIn(const char* path, long otherwise) {
  std::ifstream file(path);
  long number = otherwise;
  return file >> number ? number : otherwise;
}

bool mayNice() {
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("CapEff:", 0) != 0) continue;
    return (std::stoull(line.substr(7), nullptr, 16) >> kSysNice & 1U) != 0;
  }
  return false;
}

Finding checkPort(int port) {
  const PortUse use = portUse(port);
  std::string text = std::to_string(port);
  for (std::size_t i = 0; i < use.listeners.size(); ++i) {
    text += (i == 0 ? " is held by " : ", ") + use.listeners[i];
  }
  if (use.listeners.empty()) text += use.connections > 0 ? " has no listener" : " is free";
  if (use.connections > 0) text += "; connections: " + std::to_string(use.connections);
  if (use.waiting > 0) {
    text += "; just ended: " + std::to_string(use.waiting) +
            " (they keep out only servers without SO_REUSEADDR)";
  }
  return {"port", use.listeners.empty(), text, "end that process, or take another port"};
}

Finding checkDescriptors() {
  const rlimit limit = limitOf(RLIMIT_NOFILE);
  return {"descriptors", limit.rlim_cur >= kEnoughDescriptors, softAndHard(limit),
          "each client takes one: ulimit -n 4096, or LimitNOFILE=4096 in the service's unit"};
}

Finding checkThreads() {
  const rlimit limit = limitOf(RLIMIT_NPROC);
  const long ofSystem = numberIn("/proc/sys/kernel/threads-max", 0);
  const bool enough = limit.rlim_cur >= kEnoughThreads &&
                      (ofSystem == 0 || ofSystem >= static_cast<long>(kEnoughThreads));
  return {"threads", enough, softAndHard(limit) + "; of the system " + std::to_string(ofSystem),
          "each client takes one: ulimit -u 4096, or LimitNPROC= and TasksMax= in the unit"};
}

Finding checkTimerSlack() {
  const long slackNs = numberIn("/proc/self/timerslack_ns", kUsualSlackNs);
  return {"timer slack", slackNs <= kUsualSlackNs,
          std::to_string(slackNs) + " ns: a pause may last that much longer",
          "prctl(PR_SET_TIMERSLACK, 1), or TimerSlackNSec=1 in the service's unit"};
}

Finding checkScheduling() {
  const rlimit limit = limitOf(RLIMIT_RTPRIO);
  const int highest = sched_get_priority_max(SCHED_FIFO);
  const bool any = mayNice();
  const std::string text = any ? "real-time priorities 1 to " + std::to_string(highest)
                               : "real-time priorities up to " + limitText(limit.rlim_cur) +
                                     " of " + std::to_string(highest);
  return {"scheduling", any || limit.rlim_cur > 0, text,
          "LimitRTPRIO=80 in the service's unit, \"rtprio 80\" in /etc/security/limits.conf, or "
          "setcap cap_sys_nice+ep PROGRAM"};
}

Finding checkThrottling() {
  const long runtimeUs = numberIn("/proc/sys/kernel/sched_rt_runtime_us", -1);
  const long periodUs = numberIn("/proc/sys/kernel/sched_rt_period_us", 1000000);
  const bool whole = runtimeUs < 0 || runtimeUs >= periodUs;
  return {"throttling", true,
          whole ? "real-time threads may take all of the time"
                : "real-time threads get " + std::to_string(runtimeUs) + " of each " +
                      std::to_string(periodUs) + " us",
          ""};
}

Finding checkLockedMemory() {
  const rlimit limit = limitOf(RLIMIT_MEMLOCK);
  const bool enough = limit.rlim_cur == RLIM_INFINITY;
  return {"locked memory", enough,
          limit.rlim_cur == RLIM_INFINITY ? "unlimited" : limitText(limit.rlim_cur) + " bytes",
          "mlockall() needs LimitMEMLOCK=infinity in the service's unit, or ulimit -l unlimited"};
}

void show(const Output& out, const Finding& finding) {
  if (out.json()) {
    JsonLine line;
    line.text("check", finding.check).boolean("ok", finding.good).text("text", finding.text);
    if (!finding.good) line.text("advice", finding.advice);
    return out.line(line.str());
  }
  const std::string mark =
      finding.good ? out.painted("ok    ", Paint::Green) : out.painted("look  ", Paint::Yellow);
  out.line(mark + finding.check + ": " + printable(finding.text));
  if (!finding.good) out.line("      change: " + finding.advice);
}

Status doctor(const Run& run, int port) {
  if (port > 0) show(run.out, checkPort(port));
  for (const auto check : {checkDescriptors, checkThreads, checkTimerSlack, checkScheduling,
                           checkThrottling, checkLockedMemory}) {
    show(run.out, check());
  }
  return Status::Done;
}

}  // namespace

void addDoctor(CommandLine& line) {
  auto port = std::make_shared<int>(0);
  CLI::App& command = line.addCommand(
      {"doctor", "Tells who holds a port, what this machine allows, and what to change.",
       "Which process holds the port; limits of descriptors, threads and locked memory; timer "
       "slack;\n"
       "scheduling rights. It tells of the shell that it is run from: a service has limits of its\n"
       "own.\n",
       "  tcpcom doctor 8055\n"
       "  sudo tcpcom doctor 8055 --json\n"},
      [port](const Run& run) { return doctor(run, *port); });
  command.add_option("PORT", *port, "a port of this machine")
      ->type_name("")
      ->check(wholeNumber(1, 65535));
}

}  // namespace tcpcom
