#include "waiter.h"

#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "status.h"

namespace tcpcom {
namespace {

constexpr double kForeverS = 1e9;

Descriptor openSignals() {
  // A peer or a reader that goes away shows in the result of a write.
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM}) sigaddset(&set, signal);
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler != SIG_IGN) sigaddset(&set, SIGHUP);  // as nohup(1) asks
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  Descriptor signals(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals) throw Failure(Status::Other, std::string("signalfd: ") + errorText(errno));
  return signals;
}

timespec timeLeft(TimePoint until) {
  const auto left = std::max(until - Clock::now(), Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds);
  timespec time{};
  time.tv_sec = seconds.count();
  time.tv_nsec = rest.count();
  return time;
}

}  // namespace

TimePoint after(double seconds, TimePoint from) {
  if (seconds >= kForeverS) return kNever;
  return from + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

Waiter::Waiter(double runSeconds)
    : signals_(openSignals()), runEnd_(runSeconds > 0 ? after(runSeconds) : kNever) {}

Wake Waiter::wait(std::vector<pollfd>& entries, TimePoint until) const {
  const std::size_t own = entries.size();
  // The signal stays in its descriptor: every later wait ends at once, too.
  entries.push_back({signals_.get(), POLLIN, 0});
  // Without events poll tells of an output that nobody can read any more.
  entries.push_back({STDOUT_FILENO, 0, 0});
  const TimePoint end = std::min(until, runEnd_);
  int ready = 0;
  do {
    const timespec left = timeLeft(end);
    ready = ppoll(entries.data(), entries.size(), end == kNever ? nullptr : &left, nullptr);
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) throw Failure(Status::Other, std::string("poll: ") + errorText(errno));
  const bool interrupted = entries[own].revents != 0;
  const bool outputClosed = entries[own + 1].revents != 0;
  entries.resize(own);
  if (interrupted) return Wake::Interrupted;
  if (outputClosed) return Wake::OutputClosed;
  if (Clock::now() >= runEnd_) return Wake::RunOver;
  const bool any = std::any_of(entries.begin(), entries.end(),
                               [](const pollfd& entry) { return entry.revents != 0; });
  return any ? Wake::Ready : Wake::TimedOut;
}

Wake Waiter::waitFor(int fd, short events, TimePoint until) const {
  std::vector<pollfd> entries{{fd, events, 0}};
  return wait(entries, until);
}

Wake Waiter::pause(TimePoint until) const {
  std::vector<pollfd> none;
  return wait(none, until);
}

}  // namespace tcpcom
