// Awaiting conditions, and counting what the process holds.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace test {

using Clock = std::chrono::steady_clock;

// Generous: a machine may be shared, and a sanitizer slows everything down.
inline constexpr double kDeadlineMs = 20000;
// The bound of every stop is 100 ms; this is what a test grants on a busy machine.
inline constexpr double kStopBoundMs = 1000;

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

/// Runs the body and returns how long it took.
template <typename Body>
double timedMs(Body body) {
  const auto start = Clock::now();
  body();
  return elapsedMs(start);
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
