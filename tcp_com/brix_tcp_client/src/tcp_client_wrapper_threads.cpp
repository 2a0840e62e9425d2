// The wrapper's receive step and its three workers.

#include <utility>

#include "brix_json.h"
#include "callback_guard.h"
#include "command_envelope.h"
#include "log_facade.h"
#include "log_macros.h"
#include "message_framing.h"
#include "tcp_client_wrapper_state.h"

namespace brix {
namespace {

constexpr double kReadSliceMs = 50;  // longest time inside a read without testing for a stop
constexpr double kWorkerPauseMs = 1;
constexpr double kHeartbeatMs = 1000;
constexpr double kSilenceMs = 1500;

// One for all wrappers of the process: "time out" is logged once in a silent spell of them all.
std::atomic<bool> timedOut{false};

}  // namespace

void TcpClientWrapper::State::cycle() {
  const ThreadMark mark(this);
  const auto own = link.load();
  if (!connected() || !own) return;
  if (!own->client->waitReadable(kReadSliceMs)) return;
  const std::string text = own->client->recieveMsg();
  if (text.empty()) {
    if (!timedOut.exchange(true)) BRIX_LOG_ERROR("time out");
    if (own->givesUp) endLink(*own);
    return;
  }
  timedOut = false;
  std::vector<std::string> msgs;
  if (std::exchange(own->dropTail, false)) receiveBuffer.clear();
  receiveBuffer.feed(text.data(), text.size(), msgs, kDelimiter);
  for (std::string& msg : msgs) recievedQueue.push(std::move(msg));
  if (!exceeds(own->maxMessageBytes, receiveBuffer.buffer())) return;
  receiveBuffer.clear();
  endLink(*own);
}

void TcpClientWrapper::State::broadcastLoop(WrapperLink& own) {
  const ThreadMark mark(this);
  log_time::TimerUnit silence;
  log_time::timer_start(silence);
  while (!own.stop.requested()) {
    log_time::timer_end(silence);
    if (!recievedQueue.empty()) {
      log_time::timer_start(silence);
      deliverRound();
    } else if (silence.elapsed >= kSilenceMs) {
      BRIX_LOG_ERROR("heartbeat stop...");
      endLink(own);
      break;
    }
    own.stop.pauseMs(kWorkerPauseMs);
  }
  BRIX_LOG_ERROR("broadcast thread quit...");
}

// Each listener in turn gets a message of its own, the later ones an empty text when none is left.
void TcpClientWrapper::State::deliverRound() {
  const auto round = listeners.load();
  if (!round) return;
  for (iRecieveListener* const listener : *round) {
    if (destroyed.requested()) return;
    const std::string msg = recievedQueue.pop();
    if (listener != nullptr) guarded("onReceive exception: %s", [&] { listener->onReceive(msg); });
  }
}

void TcpClientWrapper::State::heartbeatLoop(WrapperLink& own) {
  const ThreadMark mark(this);
  const std::string heartbeat =
      brix_json::toStrWithoutIndentation(envelope::heartbeatRequest(), brix_json::kPrecision);
  while (!own.stop.requested()) {
    send(heartbeat);
    own.stop.pauseMs(kHeartbeatMs);
  }
  BRIX_LOG_ERROR("heart broken...");
}

// What was not sent when the connection ended stays for the next one.
void TcpClientWrapper::State::requestLoop(WrapperLink& own) {
  const ThreadMark mark(this);
  while (!own.stop.requested()) {
    own.stop.pauseMs(kWorkerPauseMs);
    if (own.stop.requested() || requestQueue.empty()) continue;
    own.client->sendMsg(requestQueue.pop() + kDelimiter);
  }
  BRIX_LOG_ERROR("send thread quit...");
}

}  // namespace brix
