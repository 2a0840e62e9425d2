#pragma once

#include <atomic>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brix {

/// Texts that are taken all at once: producers wait for a pointer exchange at most.
class SwapQueue {
 public:
  void push(std::string text) {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(text));
    lastJoined_ = false;
    hasData_.store(true, std::memory_order_release);
  }

  /// Appends a text and its end to the last text if that was joined too and stays that short.
  void join(const std::string& text, std::string_view end, std::size_t mostBytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t bytes = text.size() + end.size();
    const bool fits = lastJoined_ && !texts_.empty() && texts_.back().size() + bytes <= mostBytes;
    if (!fits) texts_.emplace_back();
    lastJoined_ = true;
    std::string& last = texts_.back();
    last.reserve(last.size() + bytes);  // what follows must not stop half-way for want of memory
    last.append(text).append(end);
    hasData_.store(true, std::memory_order_release);
  }

  /// Moves the texts in, and leaves an empty list.
  void pushAll(std::vector<std::string>& texts) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (texts_.empty()) {
        texts_.swap(texts);
      } else {
        texts_.insert(texts_.end(), std::make_move_iterator(texts.begin()),
                      std::make_move_iterator(texts.end()));
      }
      hasData_.store(!texts_.empty(), std::memory_order_release);
    }
    texts.clear();
  }

  /// Exchanges what is queued for the storage of `texts`, which are dropped; that of a burst is
  /// given back.
  void takeAll(std::vector<std::string>& texts) {
    texts.clear();
    if (texts.capacity() > kMostKept) texts = std::vector<std::string>();
    std::lock_guard<std::mutex> lock(mutex_);
    texts.swap(texts_);
    hasData_.store(false, std::memory_order_release);
  }

  /// Drops what is queued, and its storage.
  void clear() {
    std::vector<std::string> dropped;
    takeAll(dropped);
  }

  /// Tells without the lock: consumers poll.
  bool empty() const { return !hasData_.load(std::memory_order_acquire); }

 private:
  static constexpr std::size_t kMostKept = 4096;

  std::mutex mutex_;  // innermost
  std::vector<std::string> texts_;
  bool lastJoined_ = false;
  std::atomic<bool> hasData_{false};
};

}  // namespace brix
