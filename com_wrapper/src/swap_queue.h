#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace brix {

/// Texts that are taken all at once: producers wait for a pointer exchange at most.
class SwapQueue {
 public:
  void push(std::string text) {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(text));
    hasData_.store(true, std::memory_order_release);
  }

  /// Takes what is queued, and its storage.
  std::vector<std::string> takeAll() {
    std::vector<std::string> taken;
    std::lock_guard<std::mutex> lock(mutex_);
    taken.swap(texts_);
    hasData_.store(false, std::memory_order_release);
    return taken;
  }

  /// Tells without the lock: consumers poll.
  bool empty() const { return !hasData_.load(std::memory_order_acquire); }

 private:
  std::mutex mutex_;  // innermost
  std::vector<std::string> texts_;
  std::atomic<bool> hasData_{false};
};

}  // namespace brix
