// Which processes hold a port.
#pragma once

#include <string>
#include <vector>

namespace tcpcom {

struct PortUse {
  std::vector<std::string> listeners;  ///< such as "arm_controller (pid 4711)"
  int connections = 0;                 ///< with that local port
  int waiting = 0;                     ///< ended ones that still take the port for a minute
};

/// @throws Failure  if the system does not tell
PortUse portUse(int port);

}  // namespace tcpcom
