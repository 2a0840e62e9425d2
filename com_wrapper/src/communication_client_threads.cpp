// The client's receive cycle and its three workers.

#include <utility>

#include "atomic_access.h"
#include "brix_json.h"
#include "callback_guard.h"
#include "command_envelope.h"
#include "communication_client_state.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_end.h"
#include "thread_mark.h"

namespace brix {
namespace {

// Longest time inside the transport without testing for silence or a stop.
constexpr double kReadSliceMs = 50;
constexpr double kHeartbeatMs = 2500;
constexpr int kSent = 1;
constexpr int kNotConnected = -1;
constexpr int kSendThrew = 0;

}  // namespace

void CommunicationClient::State::cycle() {
  const ThreadMark mark(this);
  if (!connected) return;
  const auto own = link.load();
  if (own->quitFlag) {
    log_time::timer_end(own->recvTimer);
    warnOfSilence(*own);  // the last warning and the watchdog fall due together
    if (!disConnect()) return;
    own->joinAll();
    joinRetired();
    if (printFlag) BRIX_LOG_INFO("communication thread quit.");
    return;
  }
  const std::string chunk = readChunk(*own);
  log_time::timer_end(own->recvTimer);
  warnOfSilence(*own);
  if (chunk.empty()) return;
  const std::string& delimiter = own->handle->delimiter;
  if (chunk == delimiter) return;  // no traffic, and nothing for the buffer
  log_time::timer_start(own->recvTimer);
  own->warnCount = 1;
  cutMessages(*own, chunk, delimiter);
}

// A silent peer must not keep the cycle from counting the silence: nothing readable is an empty
// chunk.
std::string CommunicationClient::State::readChunk(ClientLink& own) {
  if (!own.handle->waitReadable(kReadSliceMs)) return std::string();
  std::string chunk = own.handle->recieveMsg();
  if (chunk.empty() && own.givesUp) own.quitFlag = true;  // the next cycle disconnects
  return chunk;
}

void CommunicationClient::State::warnOfSilence(ClientLink& own) {
  const double silentMs = own.recvTimer.elapsed;
  if (!beating(own) || silentMs <= own.warnCount * warnInterval) return;
  ++own.warnCount;
  BRIX_LOG_ERROR("recv cost exceed %f ms, still recv nothing.", silentMs);
}

void CommunicationClient::State::cutMessages(ClientLink& own, const std::string& chunk,
                                             const std::string& delimiter) {
  std::vector<std::string> msgs;
  if (std::exchange(own.dropTail, false)) recvBuffer.clear();
  recvBuffer.feed(chunk.data(), chunk.size(), msgs, delimiter);
  if (msgs.empty()) reportUnfinished(chunk);
  for (std::string& msg : msgs) own.recvQueue.push(std::move(msg));
  if (!exceeds(own.maxMessageBytes, recvBuffer.buffer())) return;
  recvBuffer.clear();
  own.quitFlag = true;  // the next cycle disconnects
}

void CommunicationClient::State::reportUnfinished(const std::string& chunk) const {
  if (atomicLoad(brix_controller_error) || !printFlag) return;
  BRIX_LOG_INFO("%c%s", "yellow", chunk.c_str());
  BRIX_LOG_INFO("%s", recvBuffer.buffer().c_str());
}

// A mode that is turned on later has no heartbeat in this connection to rely on.
bool CommunicationClient::State::beating(const ClientLink& own) const {
  return own.heartbeats && heartbeatMode;
}

void CommunicationClient::State::broadcastLoop(ClientLink& own) {
  const ThreadMark mark(this);
  log_time::TimerUnit idle;
  log_time::timer_start(idle);
  while (!own.stop.requested() && broadcastMode) {
    own.stop.pauseMs(recvRate, [this] { return !broadcastMode; });
    log_time::timer_end(idle);
    if (own.recvQueue.empty()) {
      if (watchdogFires(own, idle)) break;
      continue;
    }
    log_time::timer_start(idle);
    deliver(own);
  }
  if (printFlag) BRIX_LOG_ERROR("broadcast thread quit...");
}

bool CommunicationClient::State::watchdogFires(ClientLink& own, const log_time::TimerUnit& idle) {
  if (idle.elapsed < recvTimeout || !beating(own)) return false;
  if (printFlag) BRIX_LOG_INFO("has data %b, duration %f", false, idle.elapsed);
  own.quitFlag = true;
  return true;
}

void CommunicationClient::State::deliver(ClientLink& own) {
  const std::vector<std::string> msgs = own.recvQueue.takeAll();
  std::lock_guard<std::mutex> lock(listenerMutex);
  const ThreadMark mark(&listenerMutex);
  delivering = &own;
  for (const std::string& msg : msgs) {  // a stop waits for one callback, not for all
    if (own.stop.requested() || !broadcastMode) break;
    deliverOne(msg);
  }
  delivering = nullptr;
}

// By index: a listener that outlived a stop may have changed the lists under its own delivery.
void CommunicationClient::State::deliverOne(const std::string& msg) {
  for (std::size_t i = 0; i < listeners.size(); ++i) {
    iRecieveListener* const listener = listeners[i];
    if (listener != nullptr) guarded("onReceive exception: %s", [&] { listener->onReceive(msg); });
  }
  for (std::size_t i = 0; i < msgListeners.size(); ++i) {
    const auto callback = msgListeners[i];
    guarded("message listener exception: %s", [&] { (*callback)(msg); });
  }
}

// The lock is held while listeners run. A listener that changes the lists waits for itself: it
// stays there, as it always has, but no longer than its connection.
void CommunicationClient::State::changeListeners(const std::function<void()>& change) {
  if (!ThreadMark::standsFor(&listenerMutex)) {
    if (const auto lock = lockOrLeave(listenerMutex)) change();
    return;
  }
  if (!destroyed) {
    BRIX_LOG_ERROR("listeners changed inside a listener: it blocks until the client disconnects");
    while (!delivering->stop.requested() && broadcastMode) delivering->stop.pauseMs(kReadSliceMs);
  }
  change();
}

BRIX_SEES_THREAD_END void CommunicationClient::State::sendLoop(ClientLink& own) {
  const ThreadMark mark(this);
  try {
    while (!own.stop.requested() && sendMode) {
      own.stop.pauseMs(sendRate, [this] { return !sendMode; });
      if (!own.sendQueue.empty()) sendBatch(own);
    }
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    if (printFlag) BRIX_LOG_ERROR("sendRequestFunc catch exception");
  }
  if (printFlag) BRIX_LOG_ERROR("send thread quit...");
}

// After a reconnect the transport is that of the next connection, which must not get these texts.
void CommunicationClient::State::sendBatch(ClientLink& own) {
  for (std::string& text : own.sendQueue.takeAll()) {
    if (own.stop.requested()) return;
    const std::string& delimiter = own.handle->delimiter;
    if (text.size() > delimiter.size() && !endsWith(text, delimiter)) text += delimiter;
    own.handle->sendMsg(text);
  }
}

void CommunicationClient::State::heartbeatLoop(ClientLink& own) {
  const ThreadMark mark(this);
  if (heartbeatMsg.load().empty()) {
    heartbeatMsg =
        brix_json::toStrWithoutIndentation(envelope::heartbeatRequest(), brix_json::kPrecision);
  }
  while (!own.stop.requested() && heartbeatMode) {
    send(heartbeatMsg.load());
    own.stop.pauseMs(kHeartbeatMs, [this] { return !heartbeatMode; });
  }
  BRIX_LOG_ERROR("heart broken...");
}

int CommunicationClient::State::send(const std::string& msg) {
  return handOverText("sendMsg exception: %s", [&] { return msg; });
}

int CommunicationClient::State::sendRequest(const Json::Value& request) {
  return handOverText("sendRequest exception: %s", [&] {
    return brix_json::toStrWithoutIndentation(request, brix_json::kPrecision);
  });
}

int CommunicationClient::State::sendBytes(const char* data, int len) {
  return handOver("sendMsg exception: %s",
                  [&](BasicClientInterface& handle) { handle.sendMsg(data, len); });
}

int CommunicationClient::State::handOverText(const char* fmt,
                                             const std::function<std::string()>& text) {
  return handOver(fmt, [&](BasicClientInterface& handle) {
    if (sendMode) {
      link.load()->sendQueue.push(text());
    } else {
      handle.sendMsg(text());
    }
  });
}

int CommunicationClient::State::handOver(const char* fmt,
                                         const std::function<void(BasicClientInterface&)>& send) {
  if (!connected) return kNotConnected;
  const auto own = link.load();
  return guarded(fmt, [&] { send(*own->handle); }) ? kSent : kSendThrew;
}

}  // namespace brix
