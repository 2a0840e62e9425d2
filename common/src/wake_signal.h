#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "stop_signal.h"

namespace brix {

/// Lets the thread that works off a queue sleep until there is something to do. No wake-up is lost,
/// so nothing has to be tested again after a while.
///
/// On a futex, because a condition variable costs one system call more for each hand-over: whoever
/// it wakes takes the mutex as if others were waiting for it.
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
    if (armed_.exchange(kIdle) == kArmed) notify();
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

  static constexpr std::uint32_t kIdle = 0;
  static constexpr std::uint32_t kArmed = 1;  // somebody waits, or is about to

  void notify() noexcept;
  bool sleepUntil(std::chrono::steady_clock::time_point deadline) noexcept;

  template <typename Ready>
  void waitUntil(std::chrono::steady_clock::time_point deadline, Ready& ready);

  StopSignal& stop_;
  WakeSignal* const next_;  // of the same stop signal
  std::atomic<std::uint32_t> armed_{kIdle};
};

// Whoever changes something does so before it tests armed_, and whoever waits sets armed_ before it
// tests for the change: one of the two sees the other. Exchanges on both sides, since a plain store
// may be overtaken by the read that follows it.
template <typename Ready>
void WakeSignal::waitUntil(std::chrono::steady_clock::time_point deadline, Ready& ready) {
  if (stop_.requested() || ready()) return;
  for (bool inTime = true;;) {
    armed_.exchange(kArmed);
    if (stop_.requested() || ready() || !inTime) return;
    inTime = sleepUntil(deadline);
  }
}

}  // namespace brix
