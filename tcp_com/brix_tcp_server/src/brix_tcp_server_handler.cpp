#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "brix_tcp_server.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "message_splitter.h"
#include "peer_timeout.h"
#include "process_end.h"
#include "socket_owner.h"
#include "stop_signal.h"
#include "worker_thread.h"

namespace brix {
namespace {

constexpr std::size_t kReceiveBlockBytes = 16384;

}  // namespace

/// What the receiving thread shares with the handler: a callback on that thread may destroy the
/// handler.
struct TCP_COM_HIDDEN TcpServerHandler::State {
  State(int fd, int connectionId) : socket(fd), id(connectionId) {}

  void receiveLoop(int intervalMs);
  bool receiveChunk(std::vector<char>& block);
  void waitForRelease();
  void open();
  void stop();
  void finish();

  StopSignal quit;
  SocketOwner socket;
  const int id;
  MessageSplitter splitter;  // receiving thread only
  CallbackSlot<void(const std::string&)> msgCallback;
  CallbackSlot<void(int)> quitCallback;
  std::thread thread;  // creator and destructor only
  ValueSlot<std::string> delimiter;
  [[maybe_unused]] int reserved = 0;
  std::atomic<std::size_t> maxMessageBytes{0};
  std::atomic<bool> cutStalled{false};

  std::mutex gateLock;  // guards released
  std::condition_variable gate;
  bool released = false;
};

TcpServerHandler::TcpServerHandler(int socket, int id, int interval)
    : TcpServerHandler(socket, id, interval, HandlerStart::Now) {}

TcpServerHandler::TcpServerHandler(int socket, int id, int interval, HandlerStart start)
    : state_(std::make_shared<State>(socket, id)),
      msgCallback(state_->msgCallback),
      quitCallback(state_->quitCallback),
      delimiter(state_->delimiter) {
  if (start == HandlerStart::Now) release();
  const auto body = [state = state_, interval] { state->receiveLoop(interval); };
  if (!startThread(state_->thread, "connection handler", body)) state_->socket.end();
}

// The handler may be destroyed by a callback on its own thread. A thread cannot join itself: the
// log says so, and the thread ends by itself.
TcpServerHandler::~TcpServerHandler() {
  state_->stop();
  if (!state_->thread.joinable()) return;
  try {
    if (isOwnThread(state_->thread)) {
      throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    joinIfJoinable(state_->thread);
  } catch (const std::system_error& error) {
    BRIX_LOG_ERROR("catch std::system_error %s", error.what());
    state_->thread.detach();
  }
}

bool TcpServerHandler::started() const {
  return state_->thread.joinable();
}

void TcpServerHandler::setSafetyOptions(const ServerSafetyOptions& options) {
  state_->maxMessageBytes = options.maxMessageBytes;
  state_->cutStalled = options.peerTimeoutMs > 0;
  const SocketOwner::Use use(state_->socket);
  if (use) setPeerTimeout(use.fd(), options.peerTimeoutMs);
}

void TcpServerHandler::release() {
  state_->open();
}

void TcpServerHandler::recieveThreadFunc(int interval) {
  const auto state = state_;
  state->receiveLoop(interval);
}

void TcpServerHandler::sendMsg(const std::string& data) {
  const ssize_t sent = state_->socket.send(data.data(), data.size(), 0);
  // A lost client shows on the receiving side, but one that does not read only here.
  if (state_->cutStalled && sent != static_cast<ssize_t>(data.size())) state_->socket.end();
}

void TcpServerHandler::terminate() {
  state_->stop();
}

// Stop sequence: 1. quit flag, which ends the pause; 2. shut the socket down, which ends the read;
// 3. open the gate. The thread then closes the connection as if the peer had.
void TcpServerHandler::State::stop() {
  quit.request();
  socket.end();
  open();
}

void TcpServerHandler::State::open() {
  std::lock_guard<std::mutex> lock(gateLock);
  released = true;
  gate.notify_all();  // under the lock: the thread that wakes may destroy the handler
}

void TcpServerHandler::State::waitForRelease() {
  std::unique_lock<std::mutex> lock(gateLock);
  gate.wait(lock, [this] { return released; });
}

// However the loop ends, for want of memory too, the connection ends with it.
void TcpServerHandler::State::receiveLoop(int intervalMs) {
  waitForRelease();
  guarded("connection handler exception: %s", [&] {
    std::vector<char> block(kReceiveBlockBytes);
    do {
      quit.pauseMs(intervalMs);
    } while (!quit.requested() && receiveChunk(block));
  });
  finish();
}

/// @return false at the end of the connection
bool TcpServerHandler::State::receiveChunk(std::vector<char>& block) {
  const ssize_t received = socket.recv(block.data(), block.size(), 0);
  if (received <= 0) return false;
  std::vector<std::string> msgs;
  splitter.feed(block.data(), static_cast<std::size_t>(received), msgs, delimiter.load());
  for (const std::string& msg : msgs) {
    if (quit.requested()) return false;
    guarded("message callback exception: %s", [&] { msgCallback(msg); });
  }
  return !exceeds(maxMessageBytes, splitter.buffer());
}

void TcpServerHandler::State::finish() {
  socket.end();
  guarded("quit callback exception: %s", [this] { quitCallback(id); });
}

}  // namespace brix
