#pragma once

#include <condition_variable>
#include <mutex>

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
  /// @param wait  return only when none is running; not from inside one
  void close(bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    closed_ = true;
    if (wait) empty_.wait(lock, [this] { return running_ == 0; });
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
    if (--running_ == 0) empty_.notify_all();
  }

  std::mutex mutex_;  // innermost
  std::condition_variable empty_;
  int running_ = 0;
  bool closed_ = false;
};

}  // namespace brix
