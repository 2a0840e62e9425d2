// What a subcommand is given: settings, the way to wait and the way to speak.
#pragma once

#include "output.h"
#include "settings.h"
#include "waiter.h"

namespace tcpcom {

struct Run {
  explicit Run(const Settings& given)
      : settings(given), waiter(settings.runS), out(settings, waiter) {}

  const Settings settings;
  const Waiter waiter;
  const Output out;
};

/// The end of a wait for something that must come.
/// @param missing  says what did not come in time
[[noreturn]] inline void failAwaiting(Wake wake, const std::string& missing) {
  if (wake == Wake::Interrupted) throw Failure(Status::Interrupted, "");
  if (wake == Wake::OutputClosed) throw Failure(Status::Done, "");
  throw Failure(Status::TimedOut, missing);
}

/// The end of a run that goes on until something ends it.
/// @param over  the status when its time is over
inline Status endedBy(Wake wake, Status over) {
  if (wake == Wake::Interrupted) return Status::Interrupted;
  return wake == Wake::OutputClosed ? Status::Done : over;
}

}  // namespace tcpcom
