// Volumes and figures of the reliability suite.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

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
