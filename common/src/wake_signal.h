#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "stop_signal.h"

namespace brix {

/// Lets the thread that works off a queue sleep until there is something to do. No wake-up is lost,
/// so nothing has to be tested again after a while.
class WakeSignal {
 public:
  /// @param stop  ends every wait; its wake() counts as one of this. Must live as long.
  explicit WakeSignal(StopSignal& stop) noexcept : stop_(stop), next_(stop.first_) {
    stop.first_ = this;
  }
  WakeSignal(const WakeSignal&) = delete;
  WakeSignal& operator=(const WakeSignal&) = delete;

  /// To be called after a change that a `ready` depends on. Cheap while nobody waits.
  void wake() noexcept {
    if (armed_.exchange(false)) notify();
  }

  /// Waits until ready() or a stop.
  template <typename Ready>
  void wait(Ready ready) {
    waitUntil(std::chrono::steady_clock::time_point::max(), ready);
  }

  /// As above, for `ms` milliseconds at most.
  template <typename Ready>
  void waitFor(double ms, Ready ready) {
    waitUntil(std::chrono::steady_clock::now() + std::chrono::microseconds(pauseMicros(ms)), ready);
  }

 private:
  friend class StopSignal;

  void notify() noexcept;
  bool sleepUntil(std::chrono::steady_clock::time_point deadline,
                  std::unique_lock<std::mutex>& lock);

  template <typename Ready>
  void waitUntil(std::chrono::steady_clock::time_point deadline, Ready& ready);

  StopSignal& stop_;
  WakeSignal* const next_;          // of the same stop signal
  std::atomic<bool> armed_{false};  // somebody waits, or is about to
  std::mutex mutex_;                // innermost but for what `ready` takes
  std::condition_variable condition_;
};

// Whoever changes something does so before it tests armed_, and whoever waits sets armed_ before it
// tests for the change: one of the two sees the other. Exchanges on both sides, since a plain store
// may be overtaken by the read that follows it.
template <typename Ready>
void WakeSignal::waitUntil(std::chrono::steady_clock::time_point deadline, Ready& ready) {
  if (stop_.requested() || ready()) return;
  std::unique_lock<std::mutex> lock(mutex_);
  for (bool inTime = true;;) {
    armed_.exchange(true);
    if (stop_.requested() || ready() || !inTime) return;
    inTime = sleepUntil(deadline, lock);
  }
}

}  // namespace brix
