// Volumes and figures of the reliability suite.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

/// @return whether RELIABILITY=gate is set in the environment: full volumes
inline bool isGate() {
  const char* level = std::getenv("RELIABILITY");
  return level != nullptr && level == std::string("gate");
}

/// @return how often to repeat: the full number at the gate, a twentieth as part of the ordinary
///   tests
inline int volume(int plain, int sanitized) {
  const int full = kSanitized ? sanitized : plain;
  return isGate() ? full : std::max(1, full / 20);
}

/// How long something took each time. A row's bound is for the median: on a shared machine a single
/// time tells of the others' work too.
class Timings {
 public:
  void add(double ms) {
    const std::lock_guard<std::mutex> lock(mutex_);
    all_.insert(std::upper_bound(all_.begin(), all_.end(), ms), ms);
  }
  std::size_t count() const { return all_.size(); }
  double least() const { return all_.empty() ? 0 : all_.front(); }
  double median() const { return all_.empty() ? 0 : all_[all_.size() / 2]; }
  double worst() const { return all_.empty() ? 0 : all_.back(); }

 private:
  std::mutex mutex_;
  std::vector<double> all_;  // in ascending order; to be read when nobody adds any more
};

/// Prints one line of the suite's table, and appends it to the file that RELIABILITY_FIGURES names.
/// @param row  "R1", and so on
inline __attribute__((format(printf, 2, 3))) void figure(const char* row, const char* fmt, ...) {
  char text[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
#if defined(__SANITIZE_ADDRESS__)
  const char* build = "asan";
#elif defined(__SANITIZE_THREAD__)
  const char* build = "tsan";
#else
  const char* build = "plain";
#endif
  const std::string line = std::string(row) + "  " + build + "  " + text + "\n";
  std::fputs(line.c_str(), stdout);
  const char* path = std::getenv("RELIABILITY_FIGURES");
  if (path == nullptr) return;
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (file < 0 || write(file, line.data(), line.size()) < 0) std::perror(path);
  if (file >= 0) close(file);
}

}  // namespace test
