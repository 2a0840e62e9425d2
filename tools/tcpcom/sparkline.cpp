#include "sparkline.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tcpcom {
namespace {

constexpr std::array<const char*, 8> kBars{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

}  // namespace

double Sparkline::least() const {
  return *std::min_element(values_.begin(), values_.end());
}

double Sparkline::largest() const {
  return *std::max_element(values_.begin(), values_.end());
}

std::string Sparkline::add(double value) {
  values_.push_back(value);
  if (values_.size() > width_) values_.pop_front();
  const double low = least();
  // Halves, because the difference of two large values may be too large itself.
  const double half = largest() / 2 - low / 2;
  std::string chart(width_ - values_.size(), ' ');
  for (const double one : values_) {
    const double part = half > 0 ? (one / 2 - low / 2) / half : 0.5;
    chart += kBars[static_cast<std::size_t>(std::lround(part * (kBars.size() - 1)))];
  }
  return chart;
}

}  // namespace tcpcom
