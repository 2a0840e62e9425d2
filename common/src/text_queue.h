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
  /// What becomes of the oldest texts above the limit.
  enum class Above { Dropped, Kept };

  explicit TextQueue(Above above = Above::Dropped) : drops_(above == Above::Dropped) {}

  /// @param bytes  0: no limit
  void setLimit(std::size_t bytes);

  /// Appends a text. Above the limit the oldest ones are dropped and counted, unless they are kept.
  void push(std::string text);

  /// Logs how many were dropped, at most once a second. To be called now and then by the thread
  /// that takes the texts, so that the last ones are told of too.
  void report();

  /// @return whether the texts have reached the limit; their sender may wait instead of pushing
  bool full() const { return limit_ != 0 && bytes_ >= limit_; }

  /// @return the oldest text, or an empty one if there is none
  std::string pop();

  bool empty() const { return texts_.empty(); }
  std::size_t size() const { return texts_.size(); }
  void clear();

 private:
  void dropOldest();

  const bool drops_;
  DataQueue<std::string> texts_;
  std::atomic<std::ptrdiff_t> limit_{0};
  std::atomic<std::ptrdiff_t> bytes_{0};  // may fall below 0 for a moment
  std::atomic<int> dropped_{0};           // since the last log line
  std::mutex dropLock_;                   // innermost; guards what follows
  log_time::TimerUnit sinceReport_;
  bool reported_ = false;
};

}  // namespace brix
