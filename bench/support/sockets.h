/// @file
/// Plain POSIX sockets for the limit programs, and for clients that must cost next to nothing.
#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

constexpr std::size_t kChunkBytes = 64 << 10;

inline int checked(int result, const char* what) {
  if (result >= 0) return result;
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

inline void sendAtOnce(int fd) {
  const int on = 1;
  checked(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "setsockopt");
}

inline int listenAnywhere() {
  const int fd = checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
  const sockaddr_in address = loopback(0);
  checked(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  checked(listen(fd, SOMAXCONN), "listen");
  return fd;
}

inline int portOf(int listening) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  checked(getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  return ntohs(address.sin_port);
}

inline int acceptOne(int listening) {
  const int fd = checked(accept(listening, nullptr, nullptr), "accept");
  sendAtOnce(fd);
  return fd;
}

inline int connectTo(int port) {
  const int fd = checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
  const sockaddr_in address = loopback(port);
  checked(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
  sendAtOnce(fd);
  return fd;
}

/// Both ends of one TCP connection over loopback.
inline std::pair<int, int> connectedPair() {
  const int listening = listenAnywhere();
  const int client = connectTo(portOf(listening));
  const int server = acceptOne(listening);
  close(listening);
  return {client, server};
}

inline void sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) throw std::runtime_error(std::string("send: ") + std::strerror(errno));
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

/// @return false at the stream's end
inline bool receiveAll(int fd, char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t got = recv(fd, bytes, size, 0);
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

/// Cuts chunks at CR LF; a text that lies in one chunk is not copied.
class Lines {
 public:
  template <typename OnText>
  void feed(std::string_view chunk, const OnText& onText) {
    while (!chunk.empty()) {
      const void* end = std::memchr(chunk.data(), '\n', chunk.size());
      if (end == nullptr) break;
      const auto size = static_cast<std::size_t>(static_cast<const char*>(end) - chunk.data());
      std::string_view line = chunk.substr(0, size);
      if (!tail_.empty()) line = tail_.append(line);
      onText(line.substr(0, line.size() - 1));
      tail_.clear();
      chunk.remove_prefix(size + 1);
    }
    tail_.append(chunk);
  }

 private:
  std::string tail_;
};

/// One thread that reads all its sockets; it closes them at its end.
class SocketLoop {
 public:
  using OnChunk = std::function<void(int fd, std::string_view chunk)>;
  using OnClient = std::function<void(int fd)>;

  explicit SocketLoop(OnChunk onChunk) : onChunk_(std::move(onChunk)) {
    watch(wake_);
    thread_ = std::thread([this] { run(); });
  }
  ~SocketLoop() {
    eventfd_write(wake_, 1);
    thread_.join();
    for (const int fd : fds_) close(fd);
    close(epoll_);
  }
  SocketLoop(const SocketLoop&) = delete;
  SocketLoop& operator=(const SocketLoop&) = delete;

  void add(int fd) { watch(fd); }

  /// Accepts and reads every client.
  /// @return the port
  int serve(OnClient onClient) {
    onClient_ = std::move(onClient);
    const int fd = listenAnywhere();
    listening_ = fd;
    watch(fd);
    return portOf(fd);
  }

 private:
  void watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    const std::lock_guard<std::mutex> lock(mutex_);
    checked(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    fds_.push_back(fd);
  }

  void run() {
    std::array<epoll_event, 64> events{};
    std::vector<char> buffer(kChunkBytes);
    while (true) {
      const int ready = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < ready; ++i) {
        const int fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == wake_) return;
        if (fd == listening_) {
          onClient_(takeClient());
        } else {
          read(fd, buffer);
        }
      }
    }
  }

  int takeClient() {
    const int fd = acceptOne(listening_);
    watch(fd);
    return fd;
  }

  void read(int fd, std::vector<char>& buffer) {
    const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
    if (got > 0) {
      onChunk_(fd, {buffer.data(), static_cast<std::size_t>(got)});
    } else {
      epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);  // closed with the loop
    }
  }

  const OnChunk onChunk_;
  OnClient onClient_;
  const int epoll_ = checked(epoll_create1(0), "epoll_create1");
  const int wake_ = checked(eventfd(0, 0), "eventfd");
  std::atomic<int> listening_{-1};
  std::mutex mutex_;
  std::vector<int> fds_;
  std::thread thread_;
};

}  // namespace bench
