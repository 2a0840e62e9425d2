#pragma once

#include "process_end.h"
#include "stop_signal.h"

namespace brix {

/// Takes a lock whose holder may be waiting for the thread that stops this one: gives up when the
/// stop is asked for, and when the process ends, which may happen on the holder's thread.
/// @return whether the lock was taken
template <typename Lockable>
bool lockInSteps(Lockable& lock, StopSignal& stop) {
  constexpr double kStepMs = 0.2;  // the holders' free moments are 1 ms long
  while (!lock.try_lock()) {
    if (stop.requested() || processEnds()) return false;
    stop.pauseMs(kStepMs);
  }
  return true;
}

}  // namespace brix
