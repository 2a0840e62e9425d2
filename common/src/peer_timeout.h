#pragma once

namespace brix {

/// Lets the system end a connection whose peer has been gone, or has not read, for that long: a
/// read then fails, and a send fails or is cut short. What the socket refuses is left out.
/// @param timeoutMs  0 leaves the socket as it is
void setPeerTimeout(int fd, int timeoutMs) noexcept;

}  // namespace brix
