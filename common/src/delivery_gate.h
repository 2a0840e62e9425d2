#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "process_end.h"

namespace brix {

/// Lets an object that others call back go away: counts the deliveries that run, and lets none in
/// once it is closed. Must live as long as a delivery that was not let in.
class DeliveryGate {
 public:
  /// One delivery.
  class Entry {
   public:
    explicit Entry(DeliveryGate& gate) : gate_(gate), entered_(gate.enter()) {}
    ~Entry() {
      if (entered_) gate_.leave();
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    explicit operator bool() const { return entered_; }

   private:
    DeliveryGate& gate_;
    bool entered_;
  };

  /// Lets no further delivery in.
  /// @param wait  return only when none is running but the caller's own. At the end of the process
  ///   not for long: a delivery may itself be ending the process.
  /// @param own  number of deliveries that the caller is inside of
  void close(bool wait, int own = 0) {
    closed_ = true;
    if (!wait) return;
    std::unique_lock<std::mutex> lock(mutex_);
    waitOrLeave(changed_, lock, [&] { return running_ <= own; });
  }

 private:
  // Counted before the test, and closed before the count is looked at: one sees the other. No lock,
  // because each message passes here.
  bool enter() {
    ++running_;
    if (!closed_) return true;
    leave();
    return false;
  }
  void leave() {
    --running_;
    if (!closed_) return;
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
  }

  std::atomic<int> running_{0};
  std::atomic<bool> closed_{false};
  std::mutex mutex_;  // innermost
  std::condition_variable changed_;
};

}  // namespace brix
