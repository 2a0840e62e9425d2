/// @file
/// SIGINT and SIGTERM as requests to end.
#pragma once

namespace arm {

/// Takes SIGINT and SIGTERM as values instead of letting them end the process. Create it in main
/// before any thread starts: threads inherit the block.
class SignalWatch {
 public:
  SignalWatch();

  /// Waits for one of the two. @return its number
  int wait() const;

  /// @return the number of one that has come since the last call, or 0
  int poll() const;
};

}  // namespace arm
