// A listening socket.
#pragma once

#include "address.h"
#include "descriptor.h"
#include "run.h"

namespace tcpcom {

class Listener {
 public:
  /// Listens, and tells on standard error where.
  /// @param receiveBufferBytes  of accepted sockets; 0: the system's own
  /// @throws Failure  with CannotListen
  Listener(const Run& run, const Address& address, int receiveBufferBytes = 0);

  int fd() const { return socket_.get(); }

  /// @return an accepted connection; none if nobody waits any more
  /// @throws Failure  if no connection can be accepted
  Descriptor accept() const;

 private:
  Descriptor open(const SocketAddress& address, int receiveBufferBytes) const;

  std::string name_;
  Descriptor socket_;
};

}  // namespace tcpcom
