#include "wake_signal.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

namespace brix {
namespace {

using Clock = std::chrono::steady_clock;

timespec timespecOf(Clock::time_point instant) {
  using std::chrono::seconds;
  const auto whole = std::chrono::duration_cast<seconds>(instant.time_since_epoch());
  const std::chrono::nanoseconds rest = instant.time_since_epoch() - whole;
  return {static_cast<time_t>(whole.count()), static_cast<long>(rest.count())};
}

}  // namespace

void WakeSignal::notify() noexcept {
  syscall(SYS_futex, &armed_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

/// Sleeps while armed, or for some reason less.
/// @return false when the time is over
bool WakeSignal::sleepUntil(Clock::time_point deadline) noexcept {
  const timespec until = timespecOf(deadline);  // of the same clock as the kernel's
  const timespec* const limit = deadline == Clock::time_point::max() ? nullptr : &until;
  const long result = syscall(SYS_futex, &armed_, FUTEX_WAIT_BITSET_PRIVATE, kArmed, limit, nullptr,
                              FUTEX_BITSET_MATCH_ANY);
  return result == 0 || errno != ETIMEDOUT;
}

}  // namespace brix
