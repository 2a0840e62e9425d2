#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>

#include "data_queue.h"

namespace brix {

/// Texts on their way from one thread to another, with a limit on their bytes if one is set.
class TextQueue {
 public:
  /// @param bytes  0: no limit
  void setLimit(std::size_t bytes) { limit_ = static_cast<std::ptrdiff_t>(bytes); }

  /// Appends a text. Above the limit the oldest ones are dropped, with one log line a second.
  void push(std::string text);

  /// @return whether the texts have reached the limit; their sender may wait instead of pushing
  bool full() const { return limit_ != 0 && bytes_ >= limit_; }

  /// @return the oldest text, or an empty one if there is none
  std::string pop();

  bool empty() const { return texts_.empty(); }
  std::size_t size() const { return texts_.size(); }
  void clear();

 private:
  void dropOldest();
  void reportDropped();

  DataQueue<std::string> texts_;
  std::atomic<std::ptrdiff_t> limit_{0};
  std::atomic<std::ptrdiff_t> bytes_{0};  // may fall below 0 for a moment
  std::atomic<int> dropped_{0};           // since the last log line
  std::mutex reportLock_;                 // innermost
  log_time::TimerUnit sinceReport_;
  bool reported_ = false;  // reportLock_, as the timer
};

}  // namespace brix
