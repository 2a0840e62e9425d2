#include <sys/socket.h>

#include <memory>
#include <system_error>

#include "brix_tcp_server.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "peer_timeout.h"
#include "tcp_server_handler_state.h"

namespace brix {
namespace {

constexpr std::size_t kReceiveBlockBytes = 16384;

// Room for a listener, which runs here in direct delivery; far less than the system's 8 MiB, since
// a server may have a thousand of these threads.
constexpr std::size_t kStackBytes = std::size_t{1} << 20;

}  // namespace

TcpServerHandler::TcpServerHandler(int socket, int id, int interval)
    : TcpServerHandler(socket, id, interval, HandlerStart::Now) {}

TcpServerHandler::TcpServerHandler(int socket, int id, int interval, HandlerStart start)
    : state_(std::make_shared<State>(socket, id)),
      msgCallback(state_->msgCallback),
      quitCallback(state_->quitCallback),
      delimiter(state_->delimiter) {
  if (start == HandlerStart::Now) release();
  const auto body = [state = state_, interval] { state->receiveLoop(interval); };
  if (!state_->thread.start("connection handler", kStackBytes, body)) state_->socket.end();
}

// The handler may be destroyed by a callback on its own thread. A thread cannot join itself: the
// log says so, and the thread ends by itself.
TcpServerHandler::~TcpServerHandler() {
  state_->stop();
  if (!state_->thread.joinable()) return;
  try {
    if (state_->thread.isOwn()) {
      throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    state_->thread.join();
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
  state_->backlog.configure(options.maxQueuedBytes, options.peerTimeoutMs);
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

// However the loop ends, for want of memory or because a listener ends the thread, the connection
// ends with it.
void TcpServerHandler::State::receiveLoop(int intervalMs) {
  struct Finisher {
    State& state;
    bool finished = false;
    ~Finisher() {
      if (!finished) state.finish();
    }
  } finisher{*this};
  waitForRelease();
  guarded("connection handler exception: %s", [&] {
    const std::unique_ptr<char[]> block(new char[kReceiveBlockBytes]);  // not cleared
    do {
      if (intervalMs > 0) quit.pauseMs(intervalMs);  // even a pause of 0 takes its time
    } while (!quit.requested() && receiveChunk(block.get()));
  });
  finisher.finished = true;
  finish();
}

/// @return false at the end of the connection
bool TcpServerHandler::State::receiveChunk(char* block) {
  const ssize_t received = socket.recv(block, kReceiveBlockBytes, 0);
  if (received <= 0) return false;
  splitter.feed(block, static_cast<std::size_t>(received), msgs, delimiter.load());
  const bool goesOn = handOver();
  msgs.clear();
  return goesOn && !exceeds(maxMessageBytes, splitter.buffer());
}

/// @return false on a stop
bool TcpServerHandler::State::handOver() {
  if (batchCallback) {
    if (!msgs.empty()) guarded("message callback exception: %s", [&] { batchCallback(msgs); });
    return true;
  }
  for (const std::string& msg : msgs) {
    if (quit.requested()) return false;
    guarded("message callback exception: %s", [&] { msgCallback(msg); });
  }
  return true;
}

bool TcpServerHandler::State::offer(SharedText& shared, DropReport& dropped) {
  std::size_t sent = 0;
  if (backlog.empty()) {
    const std::string& text = shared.text();
    const ssize_t result = socket.send(text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (result < 0 && !wouldBlock()) return true;  // a lost client shows on the receiving side
    if (result > 0) sent = static_cast<std::size_t>(result);
    if (sent == text.size()) return true;
  }
  const bool kept =
      guarded("send exception: %s", [&] { backlog.add(shared.copy(), sent, dropped); });
  if (!kept) socket.end();  // half a text has gone, or a later one would go before this
  return !kept;
}

void TcpServerHandler::State::finish() {
  socket.end();
  guarded("quit callback exception: %s", [this] { quitCallback(id); });
}

}  // namespace brix
