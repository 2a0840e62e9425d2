/// @file
/// What the operator measured.
#pragma once

#include <cstddef>
#include <cstdint>
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

/// The numbered broadcasts that came.
struct BroadcastCount {
  std::uint64_t first = 0;  ///< number of the first one; 0 if none came
  std::uint64_t last = 0;
  std::size_t received = 0;
  std::size_t missing = 0;  ///< numbers that were left out between first and last
};

/// @return one line that scripts can read: "broadcasts: first 3, last 9, received 5, missing 2"
std::string formatLine(const BroadcastCount& count);

struct Report {
  std::size_t requests = 0;
  std::size_t replies = 0;
  std::size_t wrongReplies = 0;
  BroadcastCount broadcasts;
  Samples periodMs;   ///< between two broadcasts
  Samples latencyMs;  ///< from a request to its reply
};

/// @return the report as a table, with a newline behind each row
std::string formatTable(const Report& report);

}  // namespace arm
