/// @file
/// The port of an example's command line.
#pragma once

#include <cstdio>
#include <cstdlib>

/// @return the port that the text names; if it names none, the program ends with a line that says
/// so
inline int portOf(const char* text) {
  constexpr long kLargest = 65535;
  constexpr int kUsage = 2;
  char* end = nullptr;
  const long port = std::strtol(text, &end, 10);
  if (end != text && *end == '\0' && port >= 0 && port <= kLargest) return static_cast<int>(port);
  std::fprintf(stderr, "\"%s\" is no port, which is a number up to %ld\n", text, kLargest);
  std::exit(kUsage);  // NOLINT(concurrency-mt-unsafe): before any thread runs
}
