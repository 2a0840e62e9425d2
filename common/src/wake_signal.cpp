#include "wake_signal.h"

namespace brix {

void WakeSignal::notify() noexcept {
  {
    std::lock_guard<std::mutex> lock(mutex_);
  }  // who armed this sleeps now, or has seen the change
  condition_.notify_all();
}

/// @return false when the time is over
bool WakeSignal::sleepUntil(std::chrono::steady_clock::time_point deadline,
                            std::unique_lock<std::mutex>& lock) {
  if (deadline == std::chrono::steady_clock::time_point::max()) {
    condition_.wait(lock);
    return true;
  }
  return condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
}

}  // namespace brix
