#include "stop_signal.h"

#include <cerrno>
#include <ctime>
#include <limits>

#include "wake_signal.h"

namespace brix {
namespace {

// A stop may wait this long for a pause to end by itself: a plain sleep costs less than half of a
// wait on a condition, and the polling loops pause thousands of times a second.
constexpr long kPlainPauseUs = 10000;

double limited(double ms, double longestMs) noexcept {
  if (!(ms > 0)) return 0;  // negative or not a number
  return ms < longestMs ? ms : longestMs;
}

}  // namespace

long pauseMicros(double ms) noexcept {
  return static_cast<long>(1000.0 * limited(ms, kLongestPauseMs));
}

int wholeMs(double ms) noexcept {
  return static_cast<int>(limited(ms, std::numeric_limits<int>::max()));
}

void StopSignal::request() noexcept {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requested_.store(true, std::memory_order_release);
  }
  notifyAll();
}

void StopSignal::wake() noexcept {
  { std::lock_guard<std::mutex> lock(mutex_); }
  notifyAll();
}

void StopSignal::notifyAll() noexcept {
  condition_.notify_all();
  for (WakeSignal* signal = first_; signal != nullptr; signal = signal->next_) signal->wake();
}

bool StopSignal::pauseShort(double ms) noexcept {
  const long micros = pauseMicros(ms);
  if (micros > kPlainPauseUs) return false;
  timespec left{0, micros * 1000};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {  // a signal must not shorten a period
  }
  return true;
}

}  // namespace brix
