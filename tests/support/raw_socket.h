// Plain sockets, so that the other end of a test is not the code under test.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "wait.h"

namespace test {

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

inline void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string(what) + " failed");
}

/// One connected socket, closed with the object.
class RawSocket {
 public:
  explicit RawSocket(int fd) : fd_(fd) { check(fd >= 0, "socket"); }
  RawSocket(RawSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  RawSocket& operator=(RawSocket&&) = delete;
  ~RawSocket() { close(); }

  /// Connects to 127.0.0.1.
  static RawSocket connectTo(int port) {
    RawSocket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    check(::connect(socket.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "connect");
    return socket;
  }

  /// @return two ends of one connection
  static std::pair<RawSocket, RawSocket> pair(int type = SOCK_STREAM) {
    int ends[2];
    check(socketpair(AF_UNIX, type, 0, ends) == 0, "socketpair");
    return {RawSocket(ends[0]), RawSocket(ends[1])};
  }

  int fd() const { return fd_; }

  /// Gives the descriptor away.
  int take() { return std::exchange(fd_, -1); }

  void send(const std::string& bytes) const {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      check(sent > 0, "send");
      done += static_cast<std::size_t>(sent);
    }
  }

  /// Reads until `size` bytes have come, the peer closes or the deadline passes.
  std::string read(std::size_t size, double deadlineMs = kDeadlineMs) const {
    std::string bytes;
    const auto start = Clock::now();
    while (bytes.size() < size && elapsedMs(start) < deadlineMs) {
      pollfd entry{fd_, POLLIN, 0};
      if (poll(&entry, 1, 10) <= 0) continue;
      char block[65536];
      const ssize_t got = recv(fd_, block, std::min(sizeof block, size - bytes.size()), 0);
      if (got <= 0) break;
      bytes.append(block, static_cast<std::size_t>(got));
    }
    return bytes;
  }

  /// @return whether the peer has ended the connection
  bool ended() const {
    char byte;
    const ssize_t got = recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR);
  }

  /// @return whether it is open and nothing has come
  bool silent() const {
    char byte;
    return recv(fd_, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
  }

  /// @return the number of the connection's other end in this process; -1: not accepted yet
  int twin() const {
    sockaddr_in own{}, other{};
    socklen_t size = sizeof own;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &size);
    for (int fd = 0; fd < 1024; ++fd) {
      size = sizeof other;
      if (getpeername(fd, reinterpret_cast<sockaddr*>(&other), &size) == 0 &&
          other.sin_family == AF_INET && other.sin_port == own.sin_port) {
        return fd;
      }
    }
    return -1;
  }

  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

  /// Ends the connection with a reset.
  void reset() {
    const linger hard{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close();
  }

 private:
  int fd_;
};

/// A listening socket on 127.0.0.1, on a port of the kernel's.
class RawListener {
 public:
  explicit RawListener(int backlog = 16) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    const int reuse = 1;  // after thousands of connections every port has one that lingers
    setsockopt(socket_.fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    check(bind(socket_.fd(), raw, size) == 0, "bind");
    check(listen(socket_.fd(), backlog) == 0, "listen");
    check(getsockname(socket_.fd(), raw, &size) == 0, "getsockname");
    port_ = ntohs(address.sin_port);
  }

  int port() const { return port_; }
  void close() { socket_.close(); }
  RawSocket accept() const { return RawSocket(::accept(socket_.fd(), nullptr, nullptr)); }

  /// @return a port that nobody listens on any more
  static int unusedPort() { return RawListener().port(); }

 private:
  RawSocket socket_;
  int port_ = 0;
};

/// Sockets of somebody else in this process, on the lowest free numbers.
class Bystanders {
 public:
  explicit Bystanders(std::size_t pairs = 32) {
    while (pairs_.size() < pairs) pairs_.push_back(RawSocket::pair());
  }

  /// @return whether all are open and got no byte
  bool untouched() const {
    return std::all_of(pairs_.begin(), pairs_.end(), [](const auto& ends) {
      return ends.first.silent() && ends.second.silent();
    });
  }

 private:
  std::vector<std::pair<RawSocket, RawSocket>> pairs_;
};

}  // namespace test
