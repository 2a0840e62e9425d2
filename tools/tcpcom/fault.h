// Faults that a mock controller shows.
#pragma once

#include <string>
#include <vector>

namespace tcpcom {

enum class FaultKind {
  Silent,       ///< sends nothing more
  Delay,        ///< sends each message later
  Drop,         ///< leaves messages out
  HalfMessage,  ///< ends the connection in the middle of a message
  SlowRead,     ///< reads a few bytes a second
  Close,        ///< ends the connection
};

struct Fault {
  FaultKind kind;
  double value = 0;  ///< Delay: seconds; Drop: part of 1; SlowRead: bytes a second
  double fromS = 0;  ///< seconds after the client has connected
};

/// Reads "NAME[=VALUE][@TIME]".
/// @throws Failure  with Usage
Fault parseFault(const std::string& text);

/// @return the fault of that kind that has begun by then, null if there is none
const Fault* activeFault(const std::vector<Fault>& faults, FaultKind kind, double secondsConnected);

}  // namespace tcpcom
