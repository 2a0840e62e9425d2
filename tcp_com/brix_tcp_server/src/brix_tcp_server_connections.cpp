// The server's accept and monitor threads: connections come and go.

#include <netinet/in.h>
#include <unistd.h>

#include <utility>

#include "brix_tcp_server_state.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "tcp_server_handler_state.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr double kAcceptPauseMs = 10;

}  // namespace

/// Ends with the accept loop, however that ends; the monitor waits for it.
struct BrixTcpServer::State::Accepting {
  explicit Accepting(State& accepts) : state(accepts) { state.accepting = true; }
  ~Accepting() {
    state.accepting = false;
    state.monitorSignal.wake();
  }
  Accepting(const Accepting&) = delete;
  Accepting& operator=(const Accepting&) = delete;
  State& state;
};

void BrixTcpServer::State::acceptLoop(int port) {
  const ThreadMark mark(this);
  const Accepting whileRunning(*this);
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
  handler->state_->batchCallback = [weak](Batch& msgs) {
    if (const auto state = weak.lock()) state->receive(msgs);
  };
  handler->quitCallback = [weak](int ended) {
    if (const auto state = weak.lock()) state->popSocketHandle(ended);
  };
  handler->delimiter = ownDelimiter();
  handler->setSafetyOptions(safety.load());
  insertHandler(id, handler);
  handler->release();
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
    handlerList = nullptr;
  }
  // The stop may have walked the map already. To be done before the next step, which may wait for a
  // send to this very client.
  if (quit.requested()) handler->terminate();
  connectionNotify(true);
}

void BrixTcpServer::State::connectionNotify(bool value) {
  guarded("connection listener exception: %s", [&] { connectionListener(value); });
  ++notifiers;
  {
    std::lock_guard<std::mutex> turn(notifyLock);
    std::lock_guard<std::mutex> recvGuard(receiving.lock);
    std::lock_guard<std::mutex> sendGuard(sending.lock);
    if (!value) {
      receiving.clear();
      sending.clear();
      stalled = false;  // nobody is left to be tried again
      tellDrops(sending);
    }
    connected = value;
  }
  --notifiers;
  receiving.signal.wake();
  sending.signal.wake();
}

void BrixTcpServer::State::popSocketHandle(int id) {
  {
    std::lock_guard<std::mutex> lock(connectionLock);
    quitIds.push_back(id);
    anyQuitId = true;
  }
  monitorSignal.wake();
}

// Goes on after a stop until every client has ended and been told of.
void BrixTcpServer::State::monitorLoop() {
  const ThreadMark mark(this);
  const auto over = [this] { return quit.requested() && !accepting && connectionCount() == 0; };
  do {
    monitorSignal.wait([&] { return anyQuitId || over(); });
    std::lock_guard<std::mutex> lock(connectionLock);
    for (const int id : quitIds) guarded("monitor exception: %s", [&] { removeConnection(id); });
    quitIds.clear();
    anyQuitId = false;
  } while (!over());
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
      handlerList = nullptr;
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

// One list for all who send, until somebody comes or goes.
std::shared_ptr<const BrixTcpServer::State::Handlers> BrixTcpServer::State::handlers() {
  std::lock_guard<std::mutex> lock(mapLock);
  if (!handlerList) {
    const auto made = std::make_shared<Handlers>();
    made->reserve(connections.size());
    for (const auto& connection : connections) made->push_back(connection.second);
    handlerList = made;
  }
  return handlerList;
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
