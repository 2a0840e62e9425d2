// Awaiting conditions, and counting what the process holds.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>

namespace test {

using Clock = std::chrono::steady_clock;

// Generous: a machine may be shared, and a sanitizer slows everything down.
inline constexpr double kDeadlineMs = 20000;
// The bound of every stop is 100 ms; this is what a test grants on a busy machine.
inline constexpr double kStopBoundMs = 1000;
// How long a shared machine may stand still: where a time is taken once, it may be in it.
inline constexpr double kStallMs = 10000;

inline double elapsedMs(Clock::time_point since) {
  return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

/// Waits until the condition holds.
/// @return false when the deadline passed first
template <typename Condition>
bool eventually(Condition condition, double deadlineMs = kDeadlineMs) {
  const auto start = Clock::now();
  while (!condition()) {
    if (elapsedMs(start) > deadlineMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// @return whether the promise was kept before the deadline; asked once
template <typename Value>
bool ready(std::promise<Value>& promise) {
  const auto deadline = std::chrono::milliseconds(static_cast<long>(kDeadlineMs));
  return promise.get_future().wait_for(deadline) == std::future_status::ready;
}

/// Runs the body and returns how long it took.
template <typename Body>
double timedMs(Body body) {
  const auto start = Clock::now();
  body();
  return elapsedMs(start);
}

/// For a death test: ends the process, with success if the body says so; a hang ends it too.
template <typename Body>
[[noreturn]] void endProcessAfter(Body body) {
  alarm(30);
  std::exit(body() ? EXIT_SUCCESS : EXIT_FAILURE);
}

inline std::size_t entriesOf(const char* directory) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory),
                                                std::filesystem::directory_iterator()));
}

inline std::size_t openDescriptors() {
  return entriesOf("/proc/self/fd");
}
inline std::size_t threads() {
  // A sanitizer adds a thread of its own to the first one that is started.
  [[maybe_unused]] static const bool started = (std::thread([] {}).join(), true);
  return entriesOf("/proc/self/task");
}

/// @return threads(), when no thread is on its way out: one that was joined counts for a moment
inline std::size_t settledThreads() {
  std::size_t last = threads();
  int same = 0;
  eventually([&] {
    const std::size_t now = threads();
    same = now == last ? same + 1 : 0;
    last = now;
    return same == 10;
  });
  return last;
}

/// What the process held when this was made.
class Census {
 public:
  /// Waits until the process holds that much more.
  bool grownBy(std::size_t moreThreads, std::size_t moreDescriptors) const {
    return eventually([=] {
      return threads() == threads_ + moreThreads &&
             openDescriptors() == descriptors_ + moreDescriptors;
    });
  }

  bool threadsGrownBy(std::size_t more) const {
    return eventually([=] { return threads() == threads_ + more; });
  }

 private:
  const std::size_t threads_ = settledThreads(), descriptors_ = openDescriptors();
};

/// @return memory that the process occupies
inline std::size_t residentKib() {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// @return number of threads of this process whose name is `name`
inline std::size_t threadsNamed(const std::string& name) {
  std::size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "comm");
    std::string comm;
    std::getline(file, comm);
    if (comm == name) ++count;
  }
  return count;
}

}  // namespace test
