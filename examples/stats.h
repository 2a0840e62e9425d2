/// @file
/// What the operator measured.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace arm {

/// A set of measured values.
class Samples {
 public:
  void add(double value) { values_.push_back(value); }
  bool empty() const { return values_.empty(); }

  /// @param share  0.5 for the median, 1 for the largest
  /// @return the smallest value that at least this share of all values does not exceed; 0 if empty
  double percentile(double share) const;

 private:
  std::vector<double> values_;
};

struct Report {
  std::size_t requests = 0;
  std::size_t replies = 0;
  std::size_t wrongReplies = 0;
  std::size_t broadcasts = 0;
  std::size_t missingBroadcasts = 0;
  Samples periodMs;   ///< between two broadcasts
  Samples latencyMs;  ///< from a request to its reply
};

/// @return the report as a table, with a newline behind each row
std::string formatTable(const Report& report);

}  // namespace arm
