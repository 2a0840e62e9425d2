// The client's send thread, and what goes past it.

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

void frame(std::string& text, const std::string& delimiter) {
  if (text.size() > delimiter.size() && !endsWith(text, delimiter)) text += delimiter;
}

}  // namespace

BRIX_SEES_THREAD_END void CommunicationClient::State::sendLoop(ClientLink& own) {
  const ThreadMark mark(this);
  const auto nothing = [&] { return own.sendQueue.empty() && !own.hasUnsent; };
  try {
    while (!own.stop.requested() && sendMode) {
      pause(own, sendRate, sendMode);
      own.sendSignal.wait([&] { return !nothing() || !sendMode || !waits(sendRate); });
      if (!nothing()) sendBatch(own);
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
  std::lock_guard<std::mutex> lock(own.writeLock);
  const ThreadMark writing(&own.writeLock);
  BasicClientInterface& handle = *own.handle;
  sendUnsent(own);
  own.sendQueue.takeAll(own.outgoing);
  own.joined.clear();
  const bool joins = own.outgoing.size() > 1 && unpaced(sendRate) && handle.joinsTexts();
  for (std::string& text : own.outgoing) {
    if (own.stop.requested()) return;
    frame(text, handle.delimiter);
    if (!joins) {
      handle.sendMsg(text);
      continue;
    }
    own.joined += text;
    if (own.joined.size() >= kJoinedBytes) sendJoined(own);
  }
  if (!own.stop.requested()) sendJoined(own);
}

void CommunicationClient::State::sendJoined(ClientLink& own) {
  if (!own.joined.empty()) own.handle->sendMsg(own.joined);
  own.joined.clear();
}

void CommunicationClient::State::sendUnsent(ClientLink& own) {
  if (!own.hasUnsent || own.stop.requested()) return;
  own.hasUnsent = false;
  own.handle->sendMsg(own.unsent);
}

// Whoever holds the lock is sending: what comes meanwhile is left to the send thread. A text that
// the connection takes in part is finished by that thread.
/// @return false if the text is to be queued
bool CommunicationClient::State::sendHere(ClientLink& own, std::string& text) {
  if (!direct(sendRate)) return false;
  const std::unique_lock<std::mutex> lock(own.writeLock, std::try_to_lock);
  if (!lock || own.stop.requested() || own.hasUnsent || !own.sendQueue.empty()) return false;
  frame(text, own.handle->delimiter);
  const std::size_t sent = own.handle->sendAtOnce(text.data(), text.size());
  if (sent == 0 && !text.empty()) return false;
  if (sent == text.size()) return true;
  text.erase(0, sent);
  own.unsent = std::move(text);
  own.hasUnsent = true;
  own.sendSignal.wake();
  return true;
}

// What bypasses the queue must not come between the two parts of a text.
void CommunicationClient::State::sendPast(ClientLink& own, const std::function<void()>& send) {
  std::unique_lock<std::mutex> lock(own.writeLock, std::defer_lock);
  if (mode == DeliveryMode::Direct && !ThreadMark::standsFor(&own.writeLock)) {
    lock.lock();
    sendUnsent(own);
  }
  send();
}

/// Waits until nobody writes any more to a connection that has been stopped: the transport may be
/// that of the next one soon.
void CommunicationClient::State::awaitSenders(ClientLink& own) {
  if (mode != DeliveryMode::Direct || ThreadMark::standsFor(&own.writeLock)) return;
  lockOrLeave(own.writeLock);
}

int CommunicationClient::State::send(const std::string& msg) {
  return handOverText("sendMsg exception: %s", [&](std::size_t room) {
    std::string text;
    text.reserve(msg.size() + room);
    return text += msg;
  });
}

int CommunicationClient::State::sendRequest(const Json::Value& request) {
  return handOverText("sendRequest exception: %s", [&](std::size_t /*room*/) {
    return brix_json::toStrWithoutIndentation(request, brix_json::kPrecision);
  });
}

int CommunicationClient::State::sendBytes(const char* data, int len) {
  return handOver("sendMsg exception: %s",
                  [&](ClientLink& own) { sendPast(own, [&] { own.handle->sendMsg(data, len); }); });
}

/// @param makeText  gets the number of bytes that the text may grow by
template <typename MakeText>
int CommunicationClient::State::handOverText(const char* fmt, MakeText makeText) {
  return handOver(fmt, [&](ClientLink& own) {
    std::string text = makeText(own.handle->delimiter.size());
    if (!sendMode) {
      sendPast(own, [&] { own.handle->sendMsg(text); });
    } else if (!sendHere(own, text)) {
      own.sendQueue.push(std::move(text));
      own.sendSignal.wake();
    }
  });
}

template <typename Send>
int CommunicationClient::State::handOver(const char* fmt, Send send) {
  if (!connected) return kNotConnected;
  const auto own = link.load();
  return guarded(fmt, [&] { send(*own); }) ? kSent : kSendThrew;
}

}  // namespace brix
