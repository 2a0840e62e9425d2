#include "tcp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "atomic_access.h"
#include "log_macros.h"
#include "peer_timeout.h"
#include "socket_owner.h"
#include "tcp_address.h"

namespace brix {
namespace {

constexpr double kConnectWaitMs = 1000;
constexpr int kReadSliceMs = 50;  // longest wait that a wake-up does not end
constexpr std::size_t kReadBytes = std::size_t{2} * 1024 * 1024;
constexpr int kNoSocket = -1;
constexpr int kConnected = 1;
constexpr int kFailed = -1;

void setBlocking(int fd, bool blocking) {
  int nonBlocking = blocking ? 0 : 1;
  ioctl(fd, FIONBIO, &nonBlocking);  // cannot fail on a socket that is open
}

/// A thread's read buffer; only the pages that reads touch ever cost memory.
char* readBuffer() {
  thread_local std::unique_ptr<char[]> buffer;
  if (!buffer) buffer.reset(new char[kReadBytes]);  // not zeroed: that would touch every page
  return buffer.get();  // NOLINT(clang-analyzer-cplusplus.NewDelete): freed at the thread's end
}

/// Whether the socket is connected to somebody else. A connect that failed at once leaves it
/// unconnected without an error to read, and a client that polls a closed local port may one day be
/// given that very port and meet itself.
bool connectedToPeer(int fd) {
  sockaddr_in own{};
  sockaddr_in peer{};
  socklen_t ownSize = sizeof own;
  socklen_t peerSize = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) return false;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &ownSize) != 0) return false;
  if (own.sin_port != peer.sin_port || own.sin_addr.s_addr != peer.sin_addr.s_addr) return true;
  errno = ECONNREFUSED;
  return false;
}

/// Waits for a connect in progress.
bool finishConnect(int fd) {
  const int ready = pollFor(fd, POLLOUT, kConnectWaitMs);
  if (ready <= 0) {
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
  int error = -1;
  socklen_t size = sizeof error;
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) errno = error;
  return error == 0;
}

}  // namespace

TcpClient::TcpClient(const std::string& ip, int port) : serverAddress_(ip), serverPort_(port) {}

TcpClient::~TcpClient() {
  if (owner_) giveUp(*owner_);
  if (wakeUp_ >= 0) close(wakeUp_);
}

void TcpClient::setSafetyOptions(const ClientSafetyOptions& options) {
  strictAddress_ = options.strictAddress;
  reclaimDescriptors_ = options.reclaimDescriptors;
  peerTimeoutMs_ = options.peerTimeoutMs;
}

// Its descriptor has always stayed open, unless that is unwanted.
void TcpClient::giveUp(SocketOwner& left) {
  if (reclaimDescriptors_) {
    left.end();
  } else {
    left.abandon();
  }
}

bool TcpClient::logging() const {
  return atomicLoad(logFlag);
}

std::shared_ptr<SocketOwner> TcpClient::owner() const {
  std::lock_guard<std::mutex> lock(ownerLock_);
  return socket_ == kNoSocket ? nullptr : owner_;
}

void TcpClient::adopt(int fd) {
  auto next = SocketOwner::make(fd);
  std::lock_guard<std::mutex> lock(ownerLock_);
  if (owner_) giveUp(*owner_);
  owner_ = std::move(next);
  socket_ = fd;
}

// Another thread may have connected anew meanwhile: only the socket that failed is given up.
void TcpClient::lose(const std::shared_ptr<SocketOwner>& failed) {
  giveUp(*failed);
  std::lock_guard<std::mutex> lock(ownerLock_);
  if (owner_ == failed) socket_ = kNoSocket;
}

int TcpClient::connectServer(double /*timeout*/) {
  if (logging()) {
    BRIX_LOG_INFO("Attempt to create socket connects to [%s:%d]", serverAddress_.c_str(),
                  serverPort_);
  }
  const int fd = openSocket();
  if (fd < 0) {
    socket_ = kNoSocket;
    return kFailed;
  }
  if (logging()) BRIX_LOG_INFO("Connecting server... @%s", serverAddress_.c_str());
  setBlocking(fd, false);
  const bool connected = connectSocket(fd);
  setBlocking(fd, true);
  if (connected) {
    setPeerTimeout(fd, peerTimeoutMs_);
    adopt(fd);
    if (logging()) BRIX_LOG_INFO("connect successful");
    return kConnected;
  }
  const int error = errno;
  close(fd);
  errno = error;
  if (logging()) {
    BRIX_LOG_ERROR("Cannot Connect the server!");
    BRIX_PRINT_ERRNO("connectServer");
    socket_ = kNoSocket;
  }
  return kFailed;
}

/// @return a socket with its options set, or -1
int TcpClient::openSocket() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (logging()) BRIX_LOG_INFO("socket_fd %d", fd);
  if (fd < 0) {
    if (logging()) BRIX_LOG_INFO("socket create failed! err:%d", errno);
    BRIX_PRINT_ERRNO("connectServer");
    return kNoSocket;
  }
  if (logging()) BRIX_LOG_INFO("Socket created...");
  fcntl(fd, F_SETFD, FD_CLOEXEC);  // a child started while this connects must not keep the socket
  const int noDelay = 1;           // small messages leave at once
  if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0) {
    if (logging()) BRIX_LOG_ERROR("Fail to set socket option socket:%d", fd);
    BRIX_PRINT_ERRNO("connectServer");
    if (reclaimDescriptors_) close(fd);
    return kNoSocket;
  }
  return fd;
}

/// @return false if the connect is to fail
bool TcpClient::readAddress(sockaddr_in& address) const {
  if (!isPort(serverPort_)) return false;
  address = socketAddress(serverPort_);
  if (strictAddress_) return parseAddress(serverAddress_, address.sin_addr);
  inet_pton(AF_INET, serverAddress_.c_str(), &address.sin_addr);  // unparsable: stays zero
  return true;
}

bool TcpClient::connectSocket(int fd) const {
  sockaddr_in address{};
  if (!readAddress(address)) {
    errno = EINVAL;
    return false;
  }
  const bool atOnce =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != -1;
  const int connectError = errno;
  if (!atOnce && !finishConnect(fd)) return false;
  if (connectedToPeer(fd)) return true;
  if (!atOnce && connectError != EINPROGRESS) errno = connectError;  // it says why
  return false;
}

// The peer does not read, and what follows would break the message that was cut.
bool TcpClient::cutShort(ssize_t sent, std::size_t size) const {
  return peerTimeoutMs_ > 0 && sent != static_cast<ssize_t>(size);
}

// A signal must not cut a send short where that counts as a peer that does not read.
int TcpClient::sendFlags() const {
  return peerTimeoutMs_ > 0 ? 0 : MSG_NOSIGNAL;
}

void TcpClient::sendMsg(const std::string& msg) {
  const auto socket = owner();
  if (!socket) return;
  const ssize_t sent = socket->send(msg.data(), msg.size(), sendFlags());
  if (sent >= 0 && !cutShort(sent, msg.size())) return;
  if (logging()) BRIX_LOG_ERROR("send failed %d.", static_cast<int>(sent));
  lose(socket);
}

void TcpClient::sendMsg(const char* data, int len) {
  const auto socket = owner();
  if (!socket || data == nullptr || len < 0) return;
  const auto size = static_cast<std::size_t>(len);
  const ssize_t sent = socket->send(data, size, sendFlags());
  if (cutShort(sent, size)) lose(socket);  // any other failure shows in the next read
}

void TcpClient::closeClient() {
  if (const auto socket = owner()) socket->end();
}

std::string TcpClient::recieveMsg() {
  const auto socket = owner();
  if (!socket) {
    receivedTexts_.clear();
    return std::string();
  }
  char* const buffer = readBuffer();
  const ssize_t received = socket->recv(buffer, kReadBytes, MSG_NOSIGNAL);
  if (received < 1) return std::string();
  return std::string(buffer, static_cast<std::size_t>(received));
}

int TcpClient::recieveMsg(char* buf, int len) {
  const auto socket = owner();
  if (!socket) return 0;
  if (buf == nullptr || len < 0) return kFailed;
  return static_cast<int>(socket->recv(buf, static_cast<std::size_t>(len), MSG_NOSIGNAL));
}

// One system call as long as there is traffic.
bool TcpClient::recieveMsgWithin(double ms, std::string& chunk) {
  chunk.clear();
  const auto socket = owner();
  if (!socket) return false;
  char* const buffer = readBuffer();
  ssize_t received = socket->recvFor(buffer, kReadBytes, kReadSliceMs);
  if (received < 0 && wouldBlock()) received = recvLong(*socket, buffer, ms - kReadSliceMs);
  if (received < 0 && wouldBlock()) return true;
  if (received < 1) return false;
  chunk.assign(buffer, static_cast<std::size_t>(received));
  return true;
}

/// @return as recv(2); -1 with EAGAIN if nothing came
ssize_t TcpClient::recvLong(SocketOwner& socket, char* buffer, double ms) {
  ssize_t received = -1;
  if (ms > 0 && openWakeUp()) {
    if (wakeAsked_ || !socket.waitReadable(ms, wakeUp_)) {
      errno = EAGAIN;  // whatever a signal during the wait has left there
    } else {
      received = socket.recv(buffer, kReadBytes, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (received >= 0 || !wouldBlock()) return received;
    wakeAsked_ = false;
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = read(wakeUp_, &count, sizeof count);
  }
  errno = EAGAIN;
  return -1;
}

/// @return false if the system has no descriptor left
bool TcpClient::openWakeUp() {
  if (wakeUp_ < 0) wakeUp_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return wakeUp_ >= 0;
}

// Asked first, then woken: the reader opens the descriptor first, then looks whether it was asked.
void TcpClient::wakeReader() {
  wakeAsked_ = true;
  const std::uint64_t one = 1;
  const int wakeUp = wakeUp_;
  if (wakeUp < 0) return;
  [[maybe_unused]] const ssize_t written = write(wakeUp, &one, sizeof one);
}

std::size_t TcpClient::sendAtOnce(const char* data, std::size_t size) {
  const auto socket = owner();
  if (!socket) return size;
  const ssize_t sent = socket->send(data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent >= 0) return static_cast<std::size_t>(sent);
  if (wouldBlock()) return 0;
  if (logging()) BRIX_LOG_ERROR("send failed %d.", static_cast<int>(sent));
  lose(socket);
  return size;
}

bool TcpClient::joinsTexts() const {
  return true;
}

bool TcpClient::waitReadable(double ms) {
  const auto socket = owner();
  return !socket || socket->waitReadable(ms);
}

}  // namespace brix
