// The server's send and receive threads: one message per rate period and direction.

#include "atomic_access.h"
#include "brix_tcp_server_state.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr std::size_t kBacklogWorthALine = 100;

}  // namespace

void BrixTcpServer::State::sendLoop() {
  pumpLoop({"tcp server send msg thread on", "Communication [send] delay detected, delay %d",
            "tcp server send msg thread exit", &BasicServerInterface::sendRate, sendQueue, sendLock,
            sendEnded, &State::passToHandlers});
}

void BrixTcpServer::State::recvLoop() {
  const ThreadMark mark(this);
  pumpLoop({"tcp server recieve msg thread on", "Communication [recv] delay detected, delay %d",
            "tcp server recieve msg thread exit", &BasicServerInterface::recvRate, recvQueue,
            recvLock, recvEnded, &State::passToListener});
}

void BrixTcpServer::State::pumpLoop(const Pump& pump) {
  BRIX_LOG_INFO(pump.onText);
  while (!quit.requested()) {
    quit.pauseMs(rate(pump.rate));
    std::unique_lock<std::mutex> lock(pump.lock);
    if (!waitUntilConnected(lock)) break;
    pump.queue.report();
    if (!pump.queue.empty()) guarded("tcp server pump exception: %s", [&] { pumpOne(pump); });
  }
  BRIX_LOG_INFO(pump.exitText);
  pump.ended = true;
}

/// @return false on a stop
bool BrixTcpServer::State::waitUntilConnected(std::unique_lock<std::mutex>& lock) {
  while (!connected && !quit.requested()) {
    pumpCondition.wait_for(lock, std::chrono::milliseconds(kRetestMs));
  }
  return !quit.requested();
}

void BrixTcpServer::State::pumpOne(const Pump& pump) {
  const std::string msg = pump.queue.pop();
  const std::size_t waiting = pump.queue.size();
  if (waiting > kBacklogWorthALine) BRIX_LOG_ERROR(pump.delayText, static_cast<int>(waiting));
  (this->*pump.deliver)(msg);
}

void BrixTcpServer::State::passToListener(const std::string& msg) {
  guarded("message listener exception: %s", [&] { msgListener(msg); });
}

void BrixTcpServer::State::passToHandlers(const std::string& msg) {
  for (const auto& handler : handlers()) handler->sendMsg(msg);
}

double BrixTcpServer::State::rate(double BasicServerInterface::*field) const {
  std::lock_guard<std::mutex> lock(selfLock);
  return self != nullptr ? atomicLoad(self->*field) : 0;
}

std::string BrixTcpServer::State::ownDelimiter() const {
  std::lock_guard<std::mutex> lock(selfLock);
  return self != nullptr ? self->delimiter : std::string();
}

}  // namespace brix
