#include "brix_tcp_server.h"

#include <utility>

#include "brix_tcp_server_state.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_mark.h"
#include "worker_thread.h"

namespace brix {
namespace {

constexpr int kStarted = 1;

}  // namespace

BrixTcpServer::BrixTcpServer() : state_(std::make_shared<State>(this)) {}

BrixTcpServer::~BrixTcpServer() {
  noticeProcessEnd();
  // The monitor will work off the ends after this object has gone.
  if (ThreadMark::standsFor(state_.get())) state_->connectionListener = nullptr;
  state_->terminate();
  state_->release();
}

int BrixTcpServer::initialize(int port) {
  state_->start(port);
  return kStarted;
}

void BrixTcpServer::terminateServer() {
  const auto state = state_;
  state->terminate();
}

void BrixTcpServer::registerConnectionListener(std::function<void(bool)> listener) {
  state_->connectionListener = std::move(listener);
}

void BrixTcpServer::registerMsgListener(std::function<void(const std::string&)> listener) {
  state_->msgListener = std::move(listener);
}

bool BrixTcpServer::setSafetyOptions(const ServerSafetyOptions& options) {
  std::lock_guard<std::mutex> lock(state_->optionsLock);
  if (state_->started) {
    BRIX_LOG_ERROR("tcp server runs already, safety options not set");
    return false;
  }
  if (!state_->listening.setSafetyOptions(options)) return false;
  state_->sending.queue.setLimit(options.maxQueuedBytes);
  state_->receiving.queue.setLimit(options.maxQueuedBytes);
  state_->safety = options;
  return true;
}

// What waits in a backlog is in order only for the mode that put it there.
void BrixTcpServer::setDeliveryMode(DeliveryMode mode) {
  std::lock_guard<std::mutex> lock(state_->optionsLock);
  if (state_->started) {
    BRIX_LOG_ERROR("tcp server runs already, delivery mode not set");
    return;
  }
  state_->mode = mode;
}

void BrixTcpServer::sendMsg(const std::string& msg) {
  const auto state = state_;
  state->send(msg + delimiter);
}

void BrixTcpServer::setSendRate(double rate) {
  BasicServerInterface::setSendRate(rate);
  state_->quit.wake();
}

void BrixTcpServer::setRecvRate(double rate) {
  BasicServerInterface::setRecvRate(rate);
  state_->quit.wake();
}

bool BrixTcpServer::releaseAble() {
  return state_->releaseAble();
}

int BrixTcpServer::listeningPort() const {
  return state_->listening.port();
}

bool BrixTcpServer::waitUntilListening(double timeoutMs) const {
  const auto state = state_;
  return state->listening.waitUntilListening(timeoutMs);
}

void BrixTcpServer::waitForConnectionThreadFunc(int port) {
  state_->acceptLoop(port);
}
void BrixTcpServer::creatSocketHandle(int socket) {
  state_->createHandler(socket);
}
void BrixTcpServer::popSocketHandle(int id) {
  state_->popSocketHandle(id);
}
void BrixTcpServer::recieveMsgCallback(const std::string& msg) {
  State::Batch one(1, msg);
  state_->queueReceived(one, 0);
}
void BrixTcpServer::connectionNotify(bool connected) {
  state_->connectionNotify(connected);
}
void BrixTcpServer::minitorThread() {
  state_->monitorLoop();
}
void BrixTcpServer::sendMsgThreadFunc() {
  state_->sendLoop();
}
void BrixTcpServer::recieveMsgThreadFunc() {
  state_->recvLoop();
}

// Inside a listener, and while another thread starts or stops the server, this must not wait.
void BrixTcpServer::State::start(int port) {
  std::unique_lock<std::mutex> lock(lifecycleLock, std::defer_lock);
  const bool mayStart = !ThreadMark::standsFor(this) && lock.try_lock();
  if (!mayStart || anyWorker()) {
    BRIX_LOG_ERROR("tcp server runs already, port %d not opened", port);
    return;
  }
  {
    std::lock_guard<std::mutex> options(optionsLock);
    startWorkers(port);
    started = anyWorker();
  }
  BRIX_LOG_INFO("tcp server init, port %d", port);
}

bool BrixTcpServer::State::anyWorker() const {
  return acceptThread.joinable() || sendThread.joinable() || recvThread.joinable() ||
         monitorThread.joinable();
}

void BrixTcpServer::State::startWorkers(int port) {
  const auto state = shared_from_this();
  accepting = true;
  if (!startThread(acceptThread, "accept thread", [state, port] { state->acceptLoop(port); })) {
    accepting = false;
    listening.fail();
  }
  startThread(sendThread, "send thread", [state] { state->sendLoop(); });
  startThread(recvThread, "recieve thread", [state] { state->recvLoop(); });
  startThread(monitorThread, "monitor thread", [state] { state->monitorLoop(); });
}

// Stop sequence: 1. log; 2. quit flag, wake the pumps; 3. end every connection, which frees a send
// that is stuck on one; 4. end the listening socket, which ends the accept, and wake the monitor,
// which ends when it has told of the last client's end; 5. join accept, send and receive thread,
// wait for a listener on a client's thread; 6. join the monitor. On one of these threads, and in a
// listener, only 1 to 4: waiting there would mean waiting for itself, or for a thread that waits
// for a lock held here.
void BrixTcpServer::State::terminate() {
  BRIX_LOG_INFO("tcp server terminated, base socket id %d", listening.number());
  quit.request();
  terminateHandlers();
  listening.end();
  monitorSignal.wake();
  if (ThreadMark::standsFor(this)) return;
  if (const auto lock = lockOrLeave(lifecycleLock)) joinWorkers();
}

void BrixTcpServer::State::joinWorkers() {
  joinIfJoinable(acceptThread);
  terminateHandlers();  // a client may have come in between the first round and the socket's end
  joinIfJoinable(sendThread);
  joinIfJoinable(recvThread);
  if (mode == DeliveryMode::Direct) lockOrLeave(receiving.lock);  // a listener on a client's thread
  joinIfJoinable(monitorThread);
}

// The server goes away. The handlers end before the members that their callbacks use. Destroyed on
// one of its own threads, it leaves this state to them.
void BrixTcpServer::State::release() {
  {
    std::lock_guard<std::mutex> lock(selfLock);
    self = nullptr;
  }
  connectionListener = nullptr;  // nobody is told any more
  msgListener = nullptr;
  if (ThreadMark::standsFor(this)) return;
  std::map<int, std::shared_ptr<TcpServerHandler>> ended;
  std::shared_ptr<const Handlers> list;
  std::lock_guard<std::mutex> lock(mapLock);
  ended.swap(connections);
  list.swap(handlerList);
}

// The last holder may be one of these threads, at its very end.
BrixTcpServer::State::~State() {
  for (std::thread* thread : {&acceptThread, &sendThread, &recvThread, &monitorThread}) {
    detachIfJoinable(*thread);
  }
}

bool BrixTcpServer::State::releaseAble() const {
  const char* missing = nullptr;
  if (!acceptEnded) {
    missing = "wait_connection_thread not standby";
  } else if (!sending.ended) {
    missing = "send msg thread not standby";
  } else if (!receiving.ended) {
    missing = "recieve msg thread not standby";
  }
  if (missing != nullptr) BRIX_LOG_INFO(missing);
  return missing == nullptr;
}

}  // namespace brix
