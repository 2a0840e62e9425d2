#pragma once

#include <atomic>
#include <mutex>

#include "log_facade.h"

namespace brix {

/// Counts texts that were dropped for want of room, and tells of them once a second.
class DropReport {
 public:
  void count() { ++dropped_; }

  /// @return whether a line is to be written, now or when it is due
  bool owes() const { return dropped_ != 0; }

  /// Writes the log line if it is due.
  void tell();

 private:
  std::atomic<int> dropped_{0};  // since the last log line
  std::mutex mutex_;             // innermost; guards what follows
  log_time::TimerUnit sinceLine_;
  bool told_ = false;
};

}  // namespace brix
