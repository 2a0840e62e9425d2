#include "link.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "status.h"

namespace tcpcom {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

bool isPassing(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

Link::Link(Descriptor socket) : socket_(std::move(socket)) {
  const int flags = fcntl(fd(), F_GETFL);
  if (flags < 0 || fcntl(fd(), F_SETFL, flags | O_NONBLOCK) != 0) {
    throw Failure(Status::Other, std::string("fcntl: ") + errorText(errno));
  }
  const int on = 1;  // without it the messages are slower, and no less correct
  setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

short Link::wants() const {
  return waiting() > 0 ? POLLIN | POLLOUT : POLLIN;
}

bool Link::read(std::string& bytes, std::size_t most) {
  std::array<char, kChunkBytes> chunk;
  while (most > 0) {
    const ssize_t got = recv(fd(), chunk.data(), std::min(most, chunk.size()), 0);
    if (got == 0) return ended("the peer has closed it");
    if (got < 0) return isPassing(errno) || failed(errno);
    bytes.append(chunk.data(), static_cast<std::size_t>(got));
    most -= static_cast<std::size_t>(got);
  }
  return true;
}

bool Link::send(const std::string& bytes) {
  waiting_ += bytes;
  return flush();
}

bool Link::flush() {
  while (waiting() > 0) {
    const ssize_t sent = ::send(fd(), waiting_.data() + sent_, waiting(), MSG_NOSIGNAL);
    if (sent < 0) return isPassing(errno) || failed(errno);
    sent_ += static_cast<std::size_t>(sent);
  }
  waiting_.clear();
  sent_ = 0;
  return true;
}

int Link::unacknowledged() const {
  int bytes = 0;
  return ioctl(fd(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

void Link::endSending() const {
  shutdown(fd(), SHUT_WR);
}

bool Link::broken() {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(fd(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0) failed(error);
  return broken_;
}

bool Link::failed(int error) {
  broken_ = true;
  return ended(errorText(error));
}

bool Link::ended(const std::string& reason) {
  endReason_ = reason;
  return false;
}

}  // namespace tcpcom
