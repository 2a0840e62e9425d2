#include "tcp_server.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <utility>

#include "broadcast_core.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "process_end.h"
#include "tcp_server_state.h"
#include "worker_thread.h"

namespace brix {
namespace {

constexpr int kNoPort = -1;
constexpr double kAcceptPauseMs = 10;
constexpr int kMostBeforeAccept = 3;  // connections, so that there are four at most
constexpr int kUnreportedErrno = -1;  // the line has always shown this, whatever the error
constexpr char kBanner[] = "*************************************************";

std::atomic<int> uniqueId{0};  // of the process, as all servers count together

/// @param whole  whether a send that was cut short has failed
void transmit(SocketOwner& socket, const std::string& data, bool whole) {
  const BroadcastCore::Sending sending(socket);
  if (!sending) return;
  const ssize_t sent = socket.send(data.data(), data.size(), 0);
  if (sent < 0 || (whole && sent != static_cast<ssize_t>(data.size()))) {
    socket.end();
    BRIX_LOG_ERROR("send error,close the socket.");
  } else if (sent == 0) {
    BRIX_LOG_ERROR("Send warning,send function return 0 0.");
  }
}

}  // namespace

TcpServer::TcpServer(int port) : state_(std::make_shared<State>()) {
  if (port != kNoPort) createSocket(port);
}

TcpServer::~TcpServer() {
  release(true);
}

void TcpServer::release(bool mayBlock) {
  const auto state = state_;
  state->release(mayBlock);
}

bool TcpServer::setSafetyOptions(const ServerSafetyOptions& options) {
  std::lock_guard<std::mutex> lock(state_->optionsLock);
  if (state_->started) {
    BRIX_LOG_ERROR("tcp server was started already, safety options not set");
    return false;
  }
  if (!state_->listening.setSafetyOptions(options)) return false;
  state_->applyOptions(options);
  return true;
}

void TcpServer::createSocket(int port) {
  state_->createSocket(port);
}

void TcpServer::waitForConnection(int port) {
  state_->acceptLoop(port);
}

void TcpServer::tcpCommunication(int socket) {
  const auto state = state_;
  state->serve(state->adopt(socket));
}

void TcpServer::attachListener(iRecieveListener* listener) {
  state_->listeners.append(listener);
}

void TcpServer::attachConnectionListener(std::function<void(bool)> listener) {
  BroadcastCore::started().setConnectionListener(std::move(listener));
}

bool TcpServer::sendMsgs(const std::string& msg) {
  return BroadcastCore::started().push(msg) != 0;
}

void TcpServer::broadcastData(int socket, const std::string& data) {
  state_->broadcastData(socket, data);
}

void TcpServer::quit() {
  const auto state = state_;
  BRIX_LOG_INFO("recieve quit cmd");
  state->stop();
}

int TcpServer::listeningPort() const {
  return state_->listening.port();
}

bool TcpServer::waitUntilListening(double timeoutMs) const {
  const auto state = state_;
  return state->listening.waitUntilListening(timeoutMs);
}

void TcpServer::State::applyOptions(const ServerSafetyOptions& options) {
  maxClients = options.maxClients;
  maxMessageBytes = options.maxMessageBytes;
  cutStalled = options.peerTimeoutMs > 0;
  controlTexts = options.controlTexts;
  perClientBuffer = options.perClientBuffer;
  BroadcastCore::started().setQueueLimit(options.maxQueuedBytes);
}

TcpServer::State::~State() {
  detachIfJoinable(acceptThread);  // the last holder may be that thread, at its very end
}

/// Ends with the accept thread, however that ends.
struct TcpServer::State::Accepting {
  explicit Accepting(State& accepts) : state(accepts) {}
  ~Accepting() { state.accepting = false; }
  Accepting(const Accepting&) = delete;
  Accepting& operator=(const Accepting&) = delete;
  State& state;
};

// Inside a callback, and while another thread stops the server, this must not wait.
void TcpServer::State::createSocket(int port) {
  std::unique_lock<std::mutex> lock(lifecycleLock, std::defer_lock);
  if (onAcceptThread() || !lock.try_lock() || acceptThread.joinable()) {
    BRIX_LOG_ERROR("tcp server was started already, port %d not opened", port);
    return;
  }
  std::lock_guard<std::mutex> options(optionsLock);
  watchProcessEnd();
  accepting = true;
  const auto body = [state = shared_from_this(), port] {
    const Accepting whileRunning(*state);
    state->acceptLoop(port);
  };
  started = startThread(acceptThread, "accept thread", body);
  if (started) return;
  accepting = false;
  listening.fail();
}

// Stop sequence: 1. quit flag; 2. end the listening socket, which ends the accept; 3. join. A
// registration that waits for the broadcaster gives up. On the accept thread only 1 and 2.
void TcpServer::State::stop() {
  quit.request();
  listening.end();
  if (onAcceptThread()) return;
  if (const auto lock = lockOrLeave(lifecycleLock)) joinIfJoinable(acceptThread);
}

// The server goes away. Nobody told it to stop: it waits for that, except at the end of the
// process, when nobody is left to do it.
void TcpServer::State::release(bool mayBlock) {
  const bool ownThread = onAcceptThread() || insideListener() || BroadcastCore::insideCallback();
  noticeProcessEnd();
  StopSignal wait;
  while (mayBlock && !ownThread && accepting && !processEnds()) wait.pauseMs(kAcceptPauseMs);
  stop();
  listeners.clear();
  gate.close(true, insideListener() ? 1 : 0);
}

// A number that is no client's is the caller's business, as it stands.
void TcpServer::State::broadcastData(int socket, const std::string& data) {
  if (const auto client = findClient(socket)) {
    transmit(client->socket, data, client->whole);
    return;
  }
  SocketOwner given(socket);
  transmit(given, data, false);
  given.abandon();
}

void TcpServer::State::acceptLoop(int port) {
  const ThreadMark mark(&acceptThread);
  if (const char* failure = listening.open()) {
    BRIX_LOG_INFO("%s", failure);
    return;
  }
  BRIX_LOG_INFO("socket id %d", listening.number());
  if (const char* failure = listening.listenOn(port)) {
    BRIX_LOG_INFO("%s", failure);
    return;
  }
  for (bool watching = false; !quit.requested();) {
    quit.pauseMs(kAcceptPauseMs);
    if (!watching) watchProcessEnd();  // by now a static server's constructor has returned
    watching = true;
    guarded("accept exception: %s", [&] { acceptOne(port); });
  }
  BRIX_LOG_INFO("server quit");
  listening.end();
}

void TcpServer::State::acceptOne(int port) {
  if (maxClients == 0 && connectionCount > kMostBeforeAccept) return;
  BRIX_LOG_INFO("TCPServer Waiting for client on port %d...", port);
  sockaddr_in peer{};
  const int socket = listening.accept(peer, [this] { return clientCount.load(); });
  if (socket < 0) {
    BRIX_LOG_INFO("accept connection failed! errno = %d", kUnreportedErrno);
    return;
  }
  admit(adopt(socket), peer);
}

// The number is reserved before the client's thread can end the client, and until the broadcaster
// has forgotten it: no other connection of the process gets it before.
std::shared_ptr<TcpServer::State::Reservation> TcpServer::State::adopt(int socket) {
  std::shared_ptr<Client> client;
  try {
    client = std::make_shared<Client>(socket);
    return std::make_shared<Reservation>(client);
  } catch (...) {
    if (!client) close(socket);
    throw;
  }
}

void TcpServer::State::admit(const std::shared_ptr<Reservation>& reservation,
                             const sockaddr_in& peer) {
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  BRIX_LOG_INFO(kBanner);
  BRIX_LOG_INFO("connection from (%s , %d)", address, static_cast<int>(ntohs(peer.sin_port)));
  const int id = ++uniqueId;
  const std::shared_ptr<Client> client = reservation->client;
  client->whole = cutStalled.load();
  std::unique_lock<std::mutex> registering(client->registering);
  std::thread thread;
  const auto body = [state = shared_from_this(), reservation] { state->serve(reservation); };
  if (!startThread(thread, "client thread", body)) {
    client->socket.end();
    return;
  }
  thread.detach();
  client->admitted = true;
  ++clientCount;
  const int count = ++connectionCount;
  BRIX_LOG_INFO("current connection counts %d, unique id %d", count, id);
  BRIX_LOG_INFO(kBanner);
  const auto send = [client](int, const std::string& text) {
    transmit(client->socket, text, client->whole);
  };
  BroadcastCore::started().attachUnless(quit, send, client->socket.number());
}

}  // namespace brix
