#pragma once

#include <condition_variable>
#include <mutex>

#include "process_end.h"

namespace brix {

/// Lets an object that others call back go away: counts the deliveries that run, and lets none in
/// once it is closed.
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
    std::unique_lock<std::mutex> lock(mutex_);
    closed_ = true;
    if (!wait) return;
    waitOrLeave(changed_, lock, [&] { return running_ <= own; });
  }

 private:
  bool enter() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    ++running_;
    return true;
  }
  void leave() {
    std::lock_guard<std::mutex> lock(mutex_);
    --running_;
    if (closed_) changed_.notify_all();
  }

  std::mutex mutex_;  // innermost
  std::condition_variable changed_;
  int running_ = 0;
  bool closed_ = false;
};

}  // namespace brix
