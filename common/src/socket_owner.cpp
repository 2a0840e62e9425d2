#include "socket_owner.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>

#include "sigpipe_guard.h"
#include "stop_signal.h"

namespace brix {
namespace {

constexpr int kMsPerSecond = 1000;
constexpr suseconds_t kUsPerMs = 1000;

/// Again after a signal that came before any byte went.
ssize_t sendOnce(int fd, const void* data, std::size_t size, int flags) noexcept {
  ssize_t sent = -1;
  do {
    sent = ::send(fd, data, size, flags);
  } while (sent == -1 && errno == EINTR);
  return sent;
}

}  // namespace

bool wouldBlock() noexcept {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

int pollFor(int fd, short events, double ms, int wakeUp) noexcept {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::microseconds(pauseMicros(ms));
  pollfd entries[] = {{fd, events, 0}, {wakeUp, POLLIN, 0}};
  const nfds_t count = wakeUp < 0 ? 1 : 2;
  for (;;) {
    const std::chrono::duration<double, std::milli> left = deadline - Clock::now();
    const int result = poll(entries, count, wholeMs(std::ceil(left.count())));
    if (result != -1 || errno != EINTR) return result;
  }
}

SocketOwner::SocketOwner(int fd) noexcept : fd_(fd), state_(fd < 0 ? State::Ended : State::Open) {
  if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);  // cannot fail on a descriptor that is open
}

std::shared_ptr<SocketOwner> SocketOwner::make(int fd) {
  try {
    return std::make_shared<SocketOwner>(fd);
  } catch (...) {
    close(fd);
    throw;
  }
}

SocketOwner::~SocketOwner() {
  end();
}

SocketOwner::Use::Use(SocketOwner& owner) noexcept : owner_(owner), entered_(owner.enter()) {}

SocketOwner::Use::~Use() {
  if (entered_) owner_.leave();
}

bool SocketOwner::enter() noexcept {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::Open) {
    errno = EBADF;
    return false;
  }
  ++users_;
  return true;
}

void SocketOwner::leave() noexcept {
  const int saved = errno;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--users_ == 0 && state_ == State::Ended) close(fd_);
  }
  errno = saved;
}

void SocketOwner::end() noexcept {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::Open) return;
  state_ = State::Ended;
  shutdown(fd_, SHUT_RDWR);  // fails if the peer was faster, which is as good
  if (users_ == 0) close(fd_);
}

void SocketOwner::abandon() noexcept {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::Open) state_ = State::Abandoned;
}

ssize_t SocketOwner::send(const void* data, std::size_t size, int flags) noexcept {
  const Use use(*this);
  if (!use) return -1;
  if ((flags & MSG_NOSIGNAL) != 0) return sendOnce(fd_, data, size, flags);
  // What can go at once needs no guard, which costs three system calls.
  const ssize_t atOnce = sendOnce(fd_, data, size, flags | MSG_DONTWAIT | MSG_NOSIGNAL);
  if (atOnce == static_cast<ssize_t>(size)) return atOnce;
  if (atOnce == -1 && errno != EAGAIN) return -1;
  const std::size_t gone = atOnce > 0 ? static_cast<std::size_t>(atOnce) : 0;
  const SigpipeGuard guard(SigpipeGuard::Block::AllSignals);
  const ssize_t sent = sendOnce(fd_, static_cast<const char*>(data) + gone, size - gone, flags);
  if (sent == -1 && errno == EPIPE) {
    guard.consume();
    errno = EPIPE;
  }
  if (gone == 0) return sent;
  return static_cast<ssize_t>(gone) + (sent > 0 ? sent : 0);
}

ssize_t SocketOwner::recv(void* buffer, std::size_t size, int flags) noexcept {
  const Use use(*this);
  if (!use) return -1;
  const bool mayWait = (flags & MSG_DONTWAIT) == 0;
  ssize_t received = -1;
  do {
    received = ::recv(fd_, buffer, size, flags);
  } while (received == -1 &&
           (errno == EINTR || (recvLimit_ == Limit::Set && mayWait && wouldBlock())));
  return received;
}

int SocketOwner::accept(sockaddr_in& peer) noexcept {
  const Use use(*this);
  if (!use) return -1;
  int accepted = -1;
  do {
    socklen_t size = sizeof peer;
    accepted = ::accept(fd_, reinterpret_cast<sockaddr*>(&peer), &size);
  } while (accepted == -1 && errno == EINTR);
  return accepted;
}

// With the time limit of the system each read costs one call, without it two. Not again after a
// signal: many of them would make the wait endless.
ssize_t SocketOwner::recvFor(void* buffer, std::size_t size, int ms) noexcept {
  const Use use(*this);
  if (!use) return -1;
  if (recvLimit_ == Limit::None) {
    const timeval limit{ms / kMsPerSecond, ms % kMsPerSecond * kUsPerMs};
    const bool set = setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
    recvLimit_ = set ? Limit::Set : Limit::Refused;
  }
  int flags = MSG_NOSIGNAL;
  if (recvLimit_ != Limit::Set) {
    flags |= MSG_DONTWAIT;
    pollFor(fd_, POLLIN, ms);
  }
  const ssize_t received = ::recv(fd_, buffer, size, flags);
  if (received == -1 && errno == EINTR) errno = EAGAIN;
  return received;
}

bool SocketOwner::waitReadable(double ms, int wakeUp) noexcept {
  const Use use(*this);
  if (!use) return true;
  return pollFor(fd_, POLLIN, ms, wakeUp) != 0;
}

}  // namespace brix
