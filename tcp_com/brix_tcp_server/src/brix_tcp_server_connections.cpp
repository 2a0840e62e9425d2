// The server's accept and monitor threads: connections come and go.

#include <netinet/in.h>
#include <unistd.h>

#include <utility>

#include "brix_tcp_server_state.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr double kAcceptPauseMs = 10;
constexpr double kFullQueuePauseMs = 1;

}  // namespace

void BrixTcpServer::State::acceptLoop(int port) {
  const ThreadMark mark(this);
  const char* failure = listening.open();
  if (failure == nullptr) failure = listening.listenOn(port);
  if (failure != nullptr) {
    BRIX_LOG_INFO("%s", failure);
    return;  // acceptEnded stays false: releaseAble() tells of a server that never listened
  }
  while (!quit.requested()) {
    quit.pauseMs(kAcceptPauseMs);
    BRIX_LOG_INFO("tcp server waiting for client on port %d, base socket %d...", port,
                  listening.number());
    sockaddr_in peer{};
    const int socket = listening.accept(peer, [this] { return connectionCount(); });
    if (socket >= 0) guarded("creatSocketHandle exception: %s", [&] { createHandler(socket); });
  }
  BRIX_LOG_INFO("tcp server exit");
  listening.end();
  acceptEnded = true;
}

// The handler is held back until it stands in the map with its callbacks: neither its first message
// nor its end can come too early.
void BrixTcpServer::State::createHandler(int socket) {
  const int id = ++idCounter;
  std::shared_ptr<TcpServerHandler> handler;
  const bool made = guarded("connection handler exception: %s", [&] {
    handler = std::make_shared<TcpServerHandler>(
        socket, id, wholeMs(rate(&BasicServerInterface::recvRate)), HandlerStart::Held);
  });
  if (!made) close(socket);
  if (!made || !handler->started()) return;
  const std::weak_ptr<State> weak = weak_from_this();
  handler->msgCallback = [weak](const std::string& msg) {
    if (const auto state = weak.lock()) state->queueReceived(msg);
  };
  handler->quitCallback = [weak](int ended) {
    if (const auto state = weak.lock()) state->popSocketHandle(ended);
  };
  handler->delimiter = ownDelimiter();
  handler->setSafetyOptions(safety.load());
  insertHandler(id, handler);
  handler->release();
}

// A client that sends faster than the listener takes waits: its messages are not to be lost.
void BrixTcpServer::State::queueReceived(const std::string& msg) {
  const bool own = ThreadMark::standsFor(this);  // a listener's: it would wait for itself
  while (!own && recvQueue.full() && !quit.requested()) quit.pauseMs(kFullQueuePauseMs);
  recvQueue.push(msg);
}

int BrixTcpServer::State::connectionCount() const {
  std::lock_guard<std::mutex> lock(mapLock);
  return static_cast<int>(connections.size());
}

void BrixTcpServer::State::insertHandler(int id, const std::shared_ptr<TcpServerHandler>& handler) {
  std::lock_guard<std::mutex> lock(connectionLock);
  quitIds.reserve(connections.size() + 1);  // no client's end is lost for want of memory
  {
    std::lock_guard<std::mutex> mapGuard(mapLock);
    connections[id] = handler;
  }
  // The stop may have walked the map already. To be done before the next step, which may wait for a
  // send to this very client.
  if (quit.requested()) handler->terminate();
  connectionNotify(true);
}

void BrixTcpServer::State::connectionNotify(bool value) {
  guarded("connection listener exception: %s", [&] { connectionListener(value); });
  std::lock_guard<std::mutex> recvGuard(recvLock);
  std::lock_guard<std::mutex> sendGuard(sendLock);
  if (!value) {
    recvQueue.clear();
    sendQueue.clear();
  }
  connected = value;
  pumpCondition.notify_all();
}

void BrixTcpServer::State::popSocketHandle(int id) {
  std::lock_guard<std::mutex> lock(connectionLock);
  quitIds.push_back(id);
  connectionCondition.notify_all();
}

void BrixTcpServer::State::monitorLoop() {
  const ThreadMark mark(this);
  while (!quit.requested()) {
    std::unique_lock<std::mutex> lock(connectionLock);
    while (quitIds.empty()) {
      if (quit.requested()) return;
      connectionCondition.wait_for(lock, std::chrono::milliseconds(kRetestMs));
    }
    for (const int id : quitIds) guarded("monitor exception: %s", [&] { removeConnection(id); });
    quitIds.clear();
  }
}

// The handler is destroyed here, with its finished thread, unless the send pump still holds it.
void BrixTcpServer::State::removeConnection(int id) {
  std::shared_ptr<TcpServerHandler> removed;
  std::size_t remaining = 0;
  {
    std::lock_guard<std::mutex> lock(mapLock);
    const auto entry = connections.find(id);
    if (entry != connections.end()) {
      removed = std::move(entry->second);
      connections.erase(entry);
    }
    remaining = connections.size();
  }
  if (removed) {
    removed.reset();
    BRIX_LOG_INFO("%csocket %d quit, remain connection counts %d", "red", id,
                  static_cast<int>(remaining));
  }
  if (remaining == 0) connectionNotify(false);
}

std::vector<std::shared_ptr<TcpServerHandler>> BrixTcpServer::State::handlers() const {
  std::vector<std::shared_ptr<TcpServerHandler>> copy;
  std::lock_guard<std::mutex> lock(mapLock);
  copy.reserve(connections.size());
  for (const auto& connection : connections) copy.push_back(connection.second);
  return copy;
}

// One by one, without a list of them: a stop must not fail for want of memory.
void BrixTcpServer::State::terminateHandlers() const {
  for (int next = 0;;) {
    std::shared_ptr<TcpServerHandler> handler;
    {
      std::lock_guard<std::mutex> lock(mapLock);
      const auto entry = connections.lower_bound(next);
      if (entry == connections.end()) return;
      next = entry->first + 1;
      handler = entry->second;
    }
    handler->terminate();
  }
}

}  // namespace brix
