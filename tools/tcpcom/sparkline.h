// A live chart of one value, in one line of text.
#pragma once

#include <cstddef>
#include <deque>
#include <string>

namespace tcpcom {

class Sparkline {
 public:
  /// @param width  values that are shown, at least 1
  explicit Sparkline(std::size_t width) : width_(width) {}

  /// Adds a value.
  /// @return the chart of the last values, scaled to the least and the largest of them
  std::string add(double value);

  double least() const;
  double largest() const;

 private:
  std::size_t width_;
  std::deque<double> values_;
};

}  // namespace tcpcom
