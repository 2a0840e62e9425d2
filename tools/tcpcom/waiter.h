// The tool's only way to wait.
#pragma once

#include <poll.h>

#include <chrono>
#include <vector>

#include "descriptor.h"

namespace tcpcom {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

inline constexpr TimePoint kNever = TimePoint::max();

/// @param seconds  finite, not negative; years count as for ever
TimePoint after(double seconds, TimePoint from = Clock::now());

inline double secondsBetween(TimePoint from, TimePoint to) {
  return std::chrono::duration<double>(to - from).count();
}

/// Why a wait has ended.
enum class Wake {
  Ready,         ///< a descriptor is ready
  TimedOut,      ///< the wait's own time is over
  RunOver,       ///< the time of the whole run is over
  Interrupted,   ///< a signal asks for the end
  OutputClosed,  ///< the reader of standard output has gone
};

/// Waits for descriptors and, beside them, for whatever ends the run. One for the process, made
/// before its first thread: from then on the signals that end a run only end waits.
class Waiter {
 public:
  /// @param runSeconds  bound of the whole run; 0: none
  explicit Waiter(double runSeconds);

  /// @param entries  as for poll(2); their revents are valid with Ready
  Wake wait(std::vector<pollfd>& entries, TimePoint until) const;

  /// @return Ready when the descriptor is
  Wake waitFor(int fd, short events, TimePoint until) const;

  /// Waits for nothing but the time, or the end of the run.
  Wake pause(TimePoint until) const;

  TimePoint runEnd() const { return runEnd_; }

 private:
  Descriptor signals_;
  TimePoint runEnd_;
};

}  // namespace tcpcom
