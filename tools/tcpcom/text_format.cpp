#include "text_format.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace tcpcom {

std::string fixed(double value, int decimals) {
  std::array<char, 400> text{};  // the largest double has 309 digits before the point
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  return text.data();
}

double wallTimeS(TimePoint at) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count() - secondsBetween(at, Clock::now());
}

std::string timeOfDay(double wallS) {
  const auto wholeMs = static_cast<long long>(std::floor(wallS * 1000));
  const auto seconds = static_cast<std::time_t>(wholeMs / 1000);
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<int>(wholeMs % 1000));
  return text.data();
}

std::string padded(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

}  // namespace tcpcom
