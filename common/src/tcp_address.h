#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace brix {

inline constexpr int kLargestPort = 65535;

/// A port beyond these would silently be cut to another one.
inline bool isPort(int port) {
  return port >= 0 && port <= kLargestPort;
}

/// @return false if the whole text is not one dotted address
inline bool parseAddress(const std::string& text, in_addr& address) {
  return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &address) == 1;
}

inline bool isOfOneHost(const in_addr& address) {
  return !IN_MULTICAST(ntohl(address.s_addr)) && address.s_addr != htonl(INADDR_BROADCAST);
}

/// The port on 0.0.0.0: any local address to bind, this machine to connect.
inline sockaddr_in socketAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

}  // namespace brix
