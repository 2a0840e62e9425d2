#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace brix {

/// Longest time that a wait goes without testing again what nobody wakes it for.
inline constexpr int kRetestMs = 50;

/// A year: beyond every sensible rate, and far from overflow in the clock's arithmetic.
inline constexpr double kLongestPauseMs = 365.0 * 24 * 3600 * 1000;

/// Milliseconds as whole microseconds, truncated; a negative value and one that is no number count
/// as 0, a huge one as the largest pause.
long pauseMicros(double ms) noexcept;

/// Milliseconds as a whole number, truncated, with the same limits.
int wholeMs(double ms) noexcept;

class WakeSignal;

/// Asks the threads of one run to stop, and is their only way to pause; what they wait for besides
/// is a WakeSignal that belongs to this.
class StopSignal {
 public:
  /// Asks for the stop and ends every pause.
  void request() noexcept;

  /// Takes the request back, for an object that starts again.
  void reset() noexcept { requested_.store(false, std::memory_order_release); }

  bool requested() const noexcept { return requested_.load(std::memory_order_acquire); }

  /// Lets every pause and wait test its condition.
  void wake() noexcept;

  /// Pauses until the time is over or the stop is asked for.
  void pauseMs(double ms) {
    pauseMs(ms, [] { return false; });
  }

  /// As above, ended also by a wake() that finds `interrupted()` true.
  template <typename Interrupted>
  void pauseMs(double ms, Interrupted interrupted);

  /// Waits until a wake() finds `ready()` true, or for the stop; the lock is given up meanwhile.
  template <typename Ready>
  void await(std::unique_lock<std::mutex>& lock, Ready ready);

 private:
  friend class WakeSignal;

  void notifyAll() noexcept;
  static bool pauseShort(double ms) noexcept;

  std::atomic<bool> requested_{false};
  std::mutex mutex_;
  std::condition_variable condition_;
  WakeSignal* first_ = nullptr;  // of those that belong to this; set before any thread is started
};

template <typename Interrupted>
void StopSignal::pauseMs(double ms, Interrupted interrupted) {
  if (requested() || pauseShort(ms)) return;
  std::unique_lock<std::mutex> lock(mutex_);
  condition_.wait_for(lock, std::chrono::microseconds(pauseMicros(ms)),
                      [&] { return requested() || interrupted(); });
}

template <typename Ready>
void StopSignal::await(std::unique_lock<std::mutex>& lock, Ready ready) {
  while (!requested() && !ready()) {
    lock.unlock();
    pauseMs(kLongestPauseMs, ready);
    lock.lock();
  }
}

}  // namespace brix
