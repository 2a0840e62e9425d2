// The client's receive cycle, its broadcast thread and its heartbeat.

#include <algorithm>
#include <utility>

#include "atomic_access.h"
#include "brix_json.h"
#include "callback_guard.h"
#include "command_envelope.h"
#include "communication_client_state.h"
#include "lock_in_steps.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_mark.h"

namespace brix {
namespace {

// Longest time inside the transport without testing for silence or a stop, when it polls.
constexpr double kReadSliceMs = 50;
constexpr double kLongestWaitMs = 3600000;  // when it waits, and nothing falls due
constexpr double kDeadLinkPauseMs = 10;     // a link that gives nothing any more is still looked at
constexpr double kNoLinkPauseMs = 1;        // short, since a connection is usually on its way
constexpr double kHeartbeatMs = 2500;
constexpr std::size_t kLongestTraceBytes = 60000;  // a log line holds little more

}  // namespace

void CommunicationClient::State::cycle() {
  const ThreadMark mark(this);
  if (!connected) {
    pauseIfUnpaced(kNoLinkPauseMs);
    return;
  }
  const auto own = link.load();
  if (own->quitFlag) {
    log_time::timer_end(own->recvTimer);
    warnOfSilence(*own);  // the last warning and the watchdog fall due together
    if (!disConnect()) {
      pauseIfUnpaced(kNoLinkPauseMs);
      return;
    }
    own->joinAll();
    joinRetired();
    if (printFlag) BRIX_LOG_INFO("communication thread quit.");
    return;
  }
  BasicClientInterface& handle = *own->handle;
  // A silent peer must not keep the cycle from counting the silence: an empty chunk is nothing
  // read.
  const bool open = handle.recieveMsgWithin(readWaitMs(*own), own->chunk);
  log_time::timer_end(own->recvTimer);
  warnOfSilence(*own);
  if (!open && own->givesUp) own->quitFlag = true;  // the next cycle disconnects
  if (!open && waits(*own, recvRate)) loop->pauseMs(kDeadLinkPauseMs);
  if (own->chunk.empty()) return;
  const std::string& delimiter = handle.delimiter;
  if (own->chunk == delimiter) return;  // no traffic, and nothing for the buffer
  log_time::timer_start(own->recvTimer);
  own->warnCount = 1;
  cutMessages(*own, delimiter);
}

// At a rate of 0 nothing else paces a cycle that did not read.
void CommunicationClient::State::pauseIfUnpaced(double ms) {
  if (unpaced(recvRate)) loop->pauseMs(ms);
}

// Until the next warning falls due.
double CommunicationClient::State::readWaitMs(ClientLink& own) const {
  if (!waits(own, recvRate)) return kReadSliceMs;
  if (!beating(own)) return kLongestWaitMs;
  log_time::timer_end(own.recvTimer);
  const double leftMs = own.warnCount * warnInterval - own.recvTimer.elapsed;
  return std::clamp(leftMs, 1.0, kLongestWaitMs);
}

void CommunicationClient::State::warnOfSilence(ClientLink& own) {
  const double silentMs = own.recvTimer.elapsed;
  if (!beating(own) || silentMs <= own.warnCount * warnInterval) return;
  ++own.warnCount;
  BRIX_LOG_ERROR("recv cost exceed %f ms, still recv nothing.", silentMs);
}

void CommunicationClient::State::cutMessages(ClientLink& own, const std::string& delimiter) {
  if (std::exchange(own.dropTail, false)) recvBuffer.clear();
  own.msgs.clear();
  recvBuffer.feed(own.chunk.data(), own.chunk.size(), own.msgs, delimiter);
  if (own.msgs.empty()) {
    reportUnfinished(own.chunk);
  } else {
    handOverReceived(own);
  }
  if (!exceeds(own.maxMessageBytes, recvBuffer.buffer())) return;
  recvBuffer.clear();
  own.quitFlag = true;  // the next cycle disconnects
}

// A long message is told of at each of its chunks: its whole text would make that quadratic.
void CommunicationClient::State::reportUnfinished(const std::string& chunk) const {
  if (atomicLoad(brix_controller_error) || !printFlag) return;
  BRIX_LOG_INFO("%c%s", "yellow", chunk.c_str());
  const std::string& waiting = recvBuffer.buffer();
  if (waiting.size() <= kLongestTraceBytes) {
    BRIX_LOG_INFO("%s", waiting.c_str());
  } else {
    const std::string begin(waiting, 0, kLongestTraceBytes);
    BRIX_LOG_INFO("%s... (%zu bytes omitted)", begin.c_str(), waiting.size() - begin.size());
  }
}

// A mode that is turned on later has no heartbeat in this connection to rely on.
bool CommunicationClient::State::beating(const ClientLink& own) const {
  return own.heartbeats && heartbeatMode;
}

// Ended also by a rate that becomes 0.
void CommunicationClient::State::pause(ClientLink& own, const std::atomic<double>& rate,
                                       const std::atomic<bool>& on) {
  const double ms = rate;
  if (ms > 0) own.stop.pauseMs(ms, [&] { return !on || unpaced(rate); });
}

void CommunicationClient::State::broadcastLoop(ClientLink& own) {
  const ThreadMark mark(this);
  own.sinceDelivery.start();
  while (!own.stop.requested() && broadcastMode) {
    pause(own, recvRate, broadcastMode);
    if (waits(own, recvRate)) awaitMessage(own);
    if (own.recvQueue.empty()) {
      if (watchdogFires(own)) break;
      continue;
    }
    own.sinceDelivery.start();
    deliver(own);
  }
  if (printFlag) BRIX_LOG_ERROR("broadcast thread quit...");
}

// No longer than until the watchdog may fire; a listener that runs on the unit's thread starts the
// watch anew when it returns.
void CommunicationClient::State::awaitMessage(ClientLink& own) {
  const double leftMs = own.delivering ? recvTimeout : recvTimeout - own.sinceDelivery.elapsedMs();
  const bool watched = beating(own);
  own.recvSignal.waitFor(watched ? std::max(leftMs, 1.0) : kLongestWaitMs, [&] {
    return !own.recvQueue.empty() || !broadcastMode || !waits(own, recvRate) ||
           watched != beating(own);
  });
}

// In this order: a delivery that ends meanwhile has started the watch anew by then.
bool CommunicationClient::State::watchdogFires(ClientLink& own) {
  if (own.delivering) return false;
  const double idleMs = own.sinceDelivery.elapsedMs();
  if (idleMs < recvTimeout || !beating(own)) return false;
  if (printFlag) BRIX_LOG_INFO("has data %b, duration %f", false, idleMs);
  own.quitFlag = true;
  own.handle->wakeReader();
  return true;
}

// Taken under the lock: the unit's thread delivers itself only when nothing is left here.
void CommunicationClient::State::deliver(ClientLink& own) {
  std::lock_guard<std::mutex> lock(listenerMutex);
  own.recvQueue.takeAll(own.delivered);
  deliverAll(own, own.delivered);
}

void CommunicationClient::State::deliverAll(ClientLink& own, const std::vector<std::string>& msgs) {
  const ThreadMark mark(&listenerMutex);
  delivering = &own;
  for (const std::string& msg : msgs) {  // a stop waits for one callback, not for all
    if (own.stop.requested() || loop->stopAsked() || !broadcastMode) break;
    deliverOne(msg);
  }
  delivering = nullptr;
}

void CommunicationClient::State::handOverReceived(ClientLink& own) {
  if (direct(own, recvRate) && deliverHere(own)) return;
  own.recvQueue.pushAll(own.msgs);
  own.recvSignal.wake();
}

// The time that listeners take here is not silence. A listener on the broadcast thread may have
// ended this very connection, and wait for this thread before it connects anew.
/// @return false if messages wait that come first
bool CommunicationClient::State::deliverHere(ClientLink& own) {
  std::unique_lock<std::mutex> lock(listenerMutex, std::defer_lock);
  if (!lockInSteps(lock, own.stop) || !own.recvQueue.empty()) return false;
  own.delivering = true;
  deliverAll(own, own.msgs);
  own.sinceDelivery.start();
  own.delivering = false;
  log_time::timer_start(own.recvTimer);
  return true;
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
    StopSignal& stop = delivering->stop;
    while (!stop.requested() && !loop->stopAsked() && broadcastMode) stop.pauseMs(kReadSliceMs);
  }
  change();
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

}  // namespace brix
