// Delivery without a hand-over: listeners run on the threads that read, texts are written by their
// senders.

#include <algorithm>

#include "brix_tcp_server_state.h"
#include "callback_guard.h"
#include "tcp_server_handler_state.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr double kFullQueuePauseMs = 1;
constexpr double kFirstRetryMs = 1;
constexpr double kLongestRetryMs = 32;

}  // namespace

// A client that sends faster than the listener takes waits: its messages are not to be lost.
void BrixTcpServer::State::queueReceived(Batch& msgs, std::size_t first) {
  const bool own = ThreadMark::standsFor(this);  // a listener's: it would wait for itself
  for (;;) {
    first = receiving.queue.pushUntilFull(msgs, first, own);
    receiving.signal.wake();
    if (first == msgs.size() || quit.requested()) return;
    quit.pauseMs(kFullQueuePauseMs);
  }
}

void BrixTcpServer::State::receive(Batch& msgs) {
  const std::size_t delivered = mode == DeliveryMode::Direct ? receiveHere(msgs) : 0;
  if (delivered < msgs.size()) queueReceived(msgs, delivered);
}

// Only while nothing waits for the receive thread: it might be of the same client.
/// @return how many of the messages were delivered
std::size_t BrixTcpServer::State::receiveHere(Batch& msgs) {
  std::size_t delivered = 0;
  std::unique_lock<std::mutex> lock(receiving.lock);
  const ThreadMark mark(this);
  CallbackSlot<void(const std::string&)>::Caller listener(msgListener);
  while (delivered < msgs.size() && !quit.requested() && connected && unpaced(receiving) &&
         receiving.idle()) {
    const std::string& msg = msgs[delivered++];
    guarded("message listener exception: %s", [&] { listener(msg); });
    letNotifierIn(lock);
  }
  return delivered;
}

void BrixTcpServer::State::send(std::string text) {
  if (mode == DeliveryMode::Direct && sendHere(text)) return;
  sending.queue.push(std::move(text));
  sending.signal.wake();
}

// Whoever holds the lock is sending: what comes meanwhile is left to the send thread. Those who
// tell of connections want the lock as well, and would never get it from many senders.
/// @return false if the text is to be queued
bool BrixTcpServer::State::sendHere(const std::string& text) {
  if (!unpaced(sending)) return false;
  const std::unique_lock<std::mutex> lock(sending.lock, std::try_to_lock);
  if (!lock || !connected || notifiers > 0 || !sending.idle()) return false;
  offer(text);
  return true;
}

// To be called with the sending pump's lock, as the next one.
void BrixTcpServer::State::offer(const std::string& text) {
  SharedText shared(text);
  bool stalls = false;  // a client that has not so far
  const auto all = handlers();
  for (const auto& handler : *all) {
    TcpServerHandler::State& state = *handler->state_;
    const bool before = !state.backlog.empty();
    stalls |= !state.offer(shared, dropped) && !before;
  }
  if (!stalls) return;
  retryMs = kFirstRetryMs;
  stalled = true;
  sending.signal.wake();
}

void BrixTcpServer::State::retryStalled() {
  bool waits = false;
  bool progress = false;
  const auto all = handlers();
  for (const auto& handler : *all) {
    TcpServerHandler::State& state = *handler->state_;
    if (state.backlog.empty()) continue;
    progress |= state.retry();
    waits |= !state.backlog.empty();
  }
  stalled = waits;
  retryMs = progress ? kFirstRetryMs : std::min(2 * retryMs, kLongestRetryMs);
}

}  // namespace brix
