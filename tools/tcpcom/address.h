// HOST:PORT, and the socket addresses that it stands for.
#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "waiter.h"

namespace tcpcom {

struct Address {
  std::string host;
  int port = 0;

  std::string text() const;
};

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* raw() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* raw() { return reinterpret_cast<sockaddr*>(&storage); }
};

/// A peer to connect to: "HOST:PORT", an IPv6 address in brackets.
/// @throws Failure  with Usage
Address parsePeer(const std::string& text);

/// An address to listen on: as above, or "PORT" alone for 127.0.0.1; port 0 lets the kernel choose.
/// @throws Failure  with Usage
Address parseListening(const std::string& text);

/// Looks the host up, on a thread of its own, because a look-up cannot be interrupted.
/// @param found  gets the socket addresses, at least one with Ready
/// @throws Failure  with NoConnection if there is none
Wake resolve(const Waiter& waiter, const Address& address, TimePoint until,
             std::vector<SocketAddress>& found);

}  // namespace tcpcom
