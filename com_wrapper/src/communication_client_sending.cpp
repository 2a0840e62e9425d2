// The client's send thread, and what goes past it.

#include <string_view>
#include <utility>

#include "brix_json.h"
#include "callback_guard.h"
#include "communication_client_state.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_end.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr std::size_t kJoinedBytes = 65536;
constexpr int kSent = 1;
constexpr int kNotConnected = -1;
constexpr int kSendThrew = 0;

/// @return what the text is to be ended with
std::string_view endOf(const std::string& text, const std::string& delimiter) {
  const bool framed = text.size() <= delimiter.size() || endsWith(text, delimiter);
  return framed ? std::string_view() : std::string_view(delimiter);
}

std::string joined(const std::string& text, std::string_view end) {
  std::string both;
  both.reserve(text.size() + end.size());
  return both.append(text).append(end);
}

}  // namespace

BRIX_SEES_THREAD_END void CommunicationClient::State::sendLoop(ClientLink& own) {
  const ThreadMark mark(this);
  const auto nothing = [&] { return own.sendQueue.empty() && !own.hasUnsent; };
  try {
    while (!own.stop.requested() && sendMode) {
      pause(own, sendRate, sendMode);
      own.sendSignal.wait([&] { return !nothing() || !sendMode || !waits(own, sendRate); });
      if (!nothing()) sendBatch(own);
    }
    finishText(own);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    if (printFlag) BRIX_LOG_ERROR("sendRequestFunc catch exception");
  }
  if (printFlag) BRIX_LOG_ERROR("send thread quit...");
}

// After a reconnect the transport is that of the next connection, which must not get these texts.
void CommunicationClient::State::sendBatch(ClientLink& own) {
  std::lock_guard<std::mutex> lock(own.writeLock);
  const ThreadMark writing(&own.writeLock);
  sendUnsent(own);
  own.sendQueue.takeAll(own.outgoing);
  for (const std::string& text : own.outgoing) {
    if (own.stop.requested()) return;
    own.handle->sendMsg(text);
  }
}

// The mode was turned off: the peer must not wait for the other half of a text.
void CommunicationClient::State::finishText(ClientLink& own) {
  if (!own.hasUnsent) return;
  std::lock_guard<std::mutex> lock(own.writeLock);
  const ThreadMark writing(&own.writeLock);
  sendUnsent(own);
}

void CommunicationClient::State::sendUnsent(ClientLink& own) {
  if (!own.hasUnsent || own.stop.requested()) return;
  own.hasUnsent = false;
  own.handle->sendMsg(own.unsent);
}

// Whoever holds the lock is sending: what comes meanwhile is left to the send thread. A text that
// the connection takes in part is finished by that thread. A transport that ends the connection in
// here is like a callback: it must not wait for this lock, nor for who waits for it.
/// @return false if the text is to be queued
bool CommunicationClient::State::sendHere(ClientLink& own, const std::string& text) {
  if (ThreadMark::standsFor(&own.writeLock)) return false;
  const std::unique_lock<std::mutex> lock(own.writeLock, std::try_to_lock);
  const ThreadMark writing(&own.writeLock), inTransport(this);
  if (!lock || own.stop.requested() || own.hasUnsent || !own.sendQueue.empty()) return false;
  const std::size_t sent = own.handle->sendAtOnce(text.data(), text.size());
  if (sent == 0 && !text.empty()) return false;
  if (sent == text.size()) return true;
  own.unsent.assign(text, sent);
  own.hasUnsent = true;
  own.sendSignal.wake();
  return true;
}

// What bypasses the queue must not come between the two parts of a text, nor into the connection
// that the transport has next.
void CommunicationClient::State::sendPast(ClientLink& own, const std::function<void()>& send) {
  if (own.mode != DeliveryMode::Direct || ThreadMark::standsFor(&own.writeLock)) {
    send();
    return;
  }
  std::lock_guard<std::mutex> lock(own.writeLock);
  if (own.stop.requested()) return;
  const ThreadMark writing(&own.writeLock), inTransport(this);
  sendUnsent(own);
  send();
}

/// Waits until nobody writes any more to a connection that has been stopped: the transport may be
/// that of the next one soon.
void CommunicationClient::State::awaitSenders(ClientLink& own) {
  if (own.mode != DeliveryMode::Direct || ThreadMark::standsFor(&own.writeLock)) return;
  lockOrLeave(own.writeLock);
}

int CommunicationClient::State::send(const std::string& msg) {
  return handOver("sendMsg exception: %s", [&](ClientLink& own) { handOverText(own, msg); });
}

int CommunicationClient::State::sendRequest(const Json::Value& request) {
  return handOver("sendRequest exception: %s", [&](ClientLink& own) {
    handOverText(own, brix_json::toStrWithoutIndentation(request, brix_json::kPrecision));
  });
}

int CommunicationClient::State::sendBytes(const char* data, int len) {
  return handOver("sendMsg exception: %s",
                  [&](ClientLink& own) { sendPast(own, [&] { own.handle->sendMsg(data, len); }); });
}

void CommunicationClient::State::handOverText(ClientLink& own, const std::string& msg) {
  if (!sendMode) {
    sendPast(own, [&] { own.handle->sendMsg(msg); });
    return;
  }
  const std::string_view end = endOf(msg, own.handle->delimiter);
  if (direct(own, sendRate) && sendHere(own, joined(msg, end))) return;
  if (unpaced(sendRate) && own.handle->joinsTexts()) {
    own.sendQueue.join(msg, end, kJoinedBytes);
  } else {
    own.sendQueue.push(joined(msg, end));
  }
  own.sendSignal.wake();
}

template <typename Send>
int CommunicationClient::State::handOver(const char* fmt, Send send) {
  if (!connected) return kNotConnected;
  const auto own = link.load();
  return guarded(fmt, [&] { send(*own); }) ? kSent : kSendThrew;
}

}  // namespace brix
