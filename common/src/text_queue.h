#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "data_queue.h"
#include "drop_report.h"

namespace brix {

/// Texts on their way from one thread to another, with a limit on their bytes if one is set.
class TextQueue {
 public:
  /// @param bytes  0: no limit
  void setLimit(std::size_t bytes);

  /// Appends a text. Above the limit the oldest ones are dropped and counted.
  void push(std::string text);

  /// Logs how many were dropped, at most once a second. To be called now and then by the thread
  /// that takes the texts, so that the last ones are told of too.
  void report();

  /// @return whether texts were dropped that no line has told of yet
  bool owesReport() const { return report_.owes(); }

  /// Appends texts from the one at `first` on until the limit is reached, or all. Drops nothing.
  /// @return the place of the first one that was not appended
  std::size_t pushUntilFull(std::vector<std::string>& texts, std::size_t first, bool all);

  /// @return the oldest text, or an empty one if there is none
  std::string pop();

  /// Moves the oldest text to the end of `texts`, and those after it up to that many bytes in all.
  void popSome(std::vector<std::string>& texts, std::size_t bytes);

  bool empty() const { return texts_.empty(); }
  std::size_t size() const { return texts_.size(); }
  void clear();

 private:
  void dropOldest();

  DataQueue<std::string> texts_;
  std::atomic<std::ptrdiff_t> limit_{0};
  std::atomic<std::ptrdiff_t> bytes_{0};  // may fall below 0 for a moment
  std::mutex dropLock_;
  DropReport report_;
};

}  // namespace brix
