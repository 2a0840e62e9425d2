#include "listen_socket.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "callback_guard.h"
#include "peer_timeout.h"
#include "tcp_address.h"

namespace brix {
namespace {

constexpr int kBacklog = 5;
constexpr double kRefusedPauseMs = 10;  // a storm of strangers must not take the processor

// Without this a broadcast that follows another one waits for the client's delayed acknowledgement,
// 40 ms. A socket that refuses it is served all the same.
void sendAtOnce(int socket) {
  const int noDelay = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
}

}  // namespace

bool ListenSocket::setSafetyOptions(const ServerSafetyOptions& options) {
  if (!guard_.configure(options)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  bindAddress_ = options.bindAddress;
  peerTimeoutMs_ = options.peerTimeoutMs;
  return true;
}

int ListenSocket::peerTimeoutMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return peerTimeoutMs_;
}

/// @return false if an address is set that is none
bool ListenSocket::readBindAddress(sockaddr_in& address) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bindAddress_.empty() ||
         (parseAddress(bindAddress_, address.sin_addr) && isOfOneHost(address.sin_addr));
}

const char* ListenSocket::open() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  std::shared_ptr<SocketOwner> opened;
  if (fd >= 0) guarded("socket exception: %s", [&] { opened = SocketOwner::make(fd); });
  if (!opened) {
    publish(true, 0);
    return "Socket error";
  }
  std::lock_guard<std::mutex> lock(mutex_);
  socket_ = std::move(opened);
  failed_ = false;
  return nullptr;
}

const char* ListenSocket::listenOn(int port) {
  const auto opened = socket();
  const SocketOwner::Use use(*opened);
  const int reuse = 1;  // a restarted controller gets its port back at once
  setsockopt(use.fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in address = socketAddress(port);
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  if (!isPort(port) || !readBindAddress(address) || bind(use.fd(), raw, sizeof address) != 0) {
    publish(true, 0);
    return "Unable to bind";
  }
  if (listen(use.fd(), kBacklog) != 0) {
    publish(true, 0);
    return "Listen error";
  }
  socklen_t size = sizeof address;
  getsockname(use.fd(), raw, &size);  // the port that the kernel chose, if it was asked to
  publish(address.sin_port == 0, ntohs(address.sin_port));  // an unknown port is not waited for
  return nullptr;
}

int ListenSocket::accept(sockaddr_in& peer, const std::function<int()>& clients) {
  const auto opened = socket();
  int client = -1;
  for (;;) {
    client = opened ? opened->accept(peer) : -1;
    if (client < 0) return client;
    bool admitted = false;  // nor if it cannot be told
    guarded("accept exception: %s", [&] { admitted = guard_.admits(peer, clients()); });
    if (admitted) break;
    close(client);
    stop_.pauseMs(kRefusedPauseMs);
  }
  sendAtOnce(client);
  setPeerTimeout(client, peerTimeoutMs());
  return client;
}

void ListenSocket::fail() {
  publish(true, 0);
}

void ListenSocket::publish(bool failed, int port) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    failed_ = failed;
    port_ = stop_.requested() ? 0 : port;
  }
  changed_.notify_all();
}

void ListenSocket::end() {
  std::shared_ptr<SocketOwner> ended;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ended = socket_;
    port_ = 0;
  }
  changed_.notify_all();
  if (ended) ended->end();
}

std::shared_ptr<SocketOwner> ListenSocket::socket() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return socket_;
}

int ListenSocket::number() const {
  const auto opened = socket();
  return opened ? opened->number() : -1;
}

int ListenSocket::port() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return port_;
}

bool ListenSocket::waitUntilListening(double timeoutMs) const {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::microseconds(pauseMicros(timeoutMs)),
                    [this] { return port_ != 0 || failed_ || stop_.requested(); });
  return port_ != 0;
}

}  // namespace brix
