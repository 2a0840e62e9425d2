#pragma once

#include "stop_signal.h"

namespace brix {

/// Takes a lock whose holder may be waiting for the thread that stops this one: gives up when the
/// stop is asked for.
/// @return whether the lock was taken
template <typename Lockable>
bool lockInSteps(Lockable& lock, StopSignal& stop) {
  constexpr double kStepMs = 0.2;  // the holders' free moments are 1 ms long
  while (!lock.try_lock()) {
    if (stop.requested()) return false;
    stop.pauseMs(kStepMs);
  }
  return true;
}

}  // namespace brix
