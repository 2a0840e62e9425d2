// Figures of measured values.
#pragma once

#include <cstddef>
#include <vector>

namespace tcpcom {

/// Keeps every value; all figures of none are 0.
class Statistics {
 public:
  void add(double value) { values_.push_back(value); }
  void clear() { values_.clear(); }

  std::size_t count() const { return values_.size(); }
  double min() const { return percentile(0); }
  double max() const { return percentile(100); }
  double mean() const;
  /// Standard deviation.
  double deviation() const;
  /// The smallest value that so many per cent of the values do not exceed.
  double percentile(double percent) const;

  const std::vector<double>& values() const { return values_; }

 private:
  std::vector<double> values_;
};

}  // namespace tcpcom
