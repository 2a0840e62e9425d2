#include "peer_timeout.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

namespace brix {
namespace {

constexpr int kMsPerSecond = 1000;
constexpr int kUsPerMs = 1000;
constexpr int kMostSeconds = 2 * 127;  // the system takes no more probes

void setInt(int fd, int level, int name, int value) {
  setsockopt(fd, level, name, &value, sizeof value);
}

}  // namespace

// Keepalive finds a silent peer that is gone, the user time-out one that does not acknowledge, and
// the send time-out one that acknowledges but does not read.
void setPeerTimeout(int fd, int timeoutMs) noexcept {
  if (timeoutMs <= 0) return;
  const int seconds = std::clamp((timeoutMs - 1) / kMsPerSecond + 1, 2, kMostSeconds);
  const int probes = seconds / 2;  // one a second, after as long a silence
  setInt(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  setInt(fd, IPPROTO_TCP, TCP_KEEPIDLE, seconds - probes);
  setInt(fd, IPPROTO_TCP, TCP_KEEPINTVL, 1);
  setInt(fd, IPPROTO_TCP, TCP_KEEPCNT, probes);
  setInt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, timeoutMs);
  const long restUs = long{timeoutMs % kMsPerSecond} * kUsPerMs;
  const timeval sendTimeout{timeoutMs / kMsPerSecond, restUs};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
}

}  // namespace brix
