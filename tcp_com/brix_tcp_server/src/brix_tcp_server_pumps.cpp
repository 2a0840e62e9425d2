// The server's send and receive threads: one message per rate period and direction; at rate 0 what
// is there, as soon as it is there.

#include <utility>

#include "atomic_access.h"
#include "brix_tcp_server_state.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "tcp_server_handler_state.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr std::size_t kBacklogWorthALine = 100;
constexpr double kUnpacedLineMs = 1000;  // shortest time between two such lines at rate 0
constexpr std::size_t kBatchBytes = 65536;
constexpr double kOwedLineMs = 1000;  // until a line about dropped texts is surely due

}  // namespace

BrixTcpServer::State::State(BasicServerInterface* owner)
    : sending{"tcp server send msg thread on",
              "Communication [send] delay detected, delay %d",
              "tcp server send msg thread exit",
              &BasicServerInterface::sendRate,
              &State::passToHandlers,
              WakeSignal(quit)},
      receiving{"tcp server recieve msg thread on",
                "Communication [recv] delay detected, delay %d",
                "tcp server recieve msg thread exit",
                &BasicServerInterface::recvRate,
                &State::passToListener,
                WakeSignal(quit)},
      self(owner) {}

void BrixTcpServer::State::Pump::clear() {
  queue.clear();
  batch = Batch();
  left = 0;
}

void BrixTcpServer::State::recvLoop() {
  const ThreadMark mark(this);
  pumpLoop(receiving);
}

void BrixTcpServer::State::pumpLoop(Pump& pump) {
  BRIX_LOG_INFO(pump.onText);
  while (!quit.requested()) {
    pausePump(pump);
    waitForWork(pump);
    std::unique_lock<std::mutex> lock(pump.lock);
    if (quit.requested()) break;
    tellDrops(pump);
    if (connected) guarded("tcp server pump exception: %s", [&] { pumpOnce(pump, lock); });
  }
  BRIX_LOG_INFO(pump.exitText);
  pump.ended = true;
}

void BrixTcpServer::State::pausePump(const Pump& pump) {
  const double ms = rate(pump.rate);
  if (ms > 0) quit.pauseMs(ms, [&] { return unpaced(pump); });
}

// A stalled client's socket cannot be waited for together with the queue: it is tried again after a
// while, ever more rarely, and at once when another client stalls.
void BrixTcpServer::State::waitForWork(Pump& pump) {
  const auto ready = [&] { return connected && notifiers == 0 && (!pump.idle() || !waits(pump)); };
  const bool sends = &pump == &sending;
  pump.signal.wait([&] { return ready() || (sends && stalled) || owesLine(pump); });
  if (sends && stalled) {
    const double ms = retryMs;
    pump.signal.waitFor(ms, [&] { return ready() || retryMs < ms; });
  } else if (owesLine(pump)) {
    pump.signal.waitFor(kOwedLineMs, ready);
  }
}

/// @return whether texts were dropped that no line has told of yet
bool BrixTcpServer::State::owesLine(const Pump& pump) const {
  return pump.queue.owesReport() || (&pump == &sending && dropped.owes());
}

void BrixTcpServer::State::tellDrops(Pump& pump) {
  pump.queue.report();
  if (&pump == &sending) dropped.tell();
}

void BrixTcpServer::State::pumpOnce(Pump& pump, std::unique_lock<std::mutex>& lock) {
  if (&pump == &sending && stalled) retryStalled();
  if (pump.idle()) return;
  take(pump);
  if (pump.left > 0) (this->*pump.deliver)(lock);
}

// What was taken at rate 0 comes first, whatever the rate is now.
void BrixTcpServer::State::take(Pump& pump) {
  const bool unpacedNow = unpaced(pump);
  if (pump.left > 0) {
    if (!unpacedNow) tellDelay(pump, unpacedNow);
    return;
  }
  struct Count {  // want of memory may end the taking half-way
    Pump& pump;
    ~Count() { pump.left = pump.batch.size(); }
  };
  pump.batch.clear();
  {
    const Count taken{pump};
    pump.queue.popSome(pump.batch, unpacedNow ? kBatchBytes : 0);
  }
  if (pump.left > 0) tellDelay(pump, unpacedNow);
}

void BrixTcpServer::State::tellDelay(Pump& pump, bool unpacedNow) {
  const std::size_t waiting = pump.queue.size() + pump.left - 1;
  if (waiting <= kBacklogWorthALine) return;
  if (unpacedNow) {
    log_time::timer_end(pump.sinceDelayLine);
    if (std::exchange(pump.delayTold, true) && pump.sinceDelayLine.elapsed < kUnpacedLineMs) return;
    log_time::timer_start(pump.sinceDelayLine);
  }
  BRIX_LOG_ERROR(pump.delayText, static_cast<int>(waiting));
}

// A whole batch at rate 0, one message otherwise; the rate may change meanwhile.
void BrixTcpServer::State::passToListener(std::unique_lock<std::mutex>& lock) {
  Pump& pump = receiving;
  CallbackSlot<void(const std::string&)>::Caller listener(msgListener);
  do {
    const std::string msg = std::move(pump.following());
    --pump.left;
    guarded("message listener exception: %s", [&] { listener(msg); });
    letNotifierIn(lock);
  } while (pump.left > 0 && !quit.requested() && unpaced(pump));
}

// Those who tell of connections would otherwise wait for the whole batch: a mutex is not fair.
void BrixTcpServer::State::letNotifierIn(std::unique_lock<std::mutex>& lock) {
  if (notifiers == 0) return;
  lock.unlock();
  { std::lock_guard<std::mutex> turn(notifyLock); }
  lock.lock();
}

void BrixTcpServer::State::passToHandlers(std::unique_lock<std::mutex>& /*lock*/) {
  sending.left = 0;  // also if what follows throws
  const std::string* text = &sending.batch[0];
  if (sending.batch.size() > 1) {
    joined.clear();
    for (const std::string& part : sending.batch) joined += part;
    text = &joined;
  }
  if (mode == DeliveryMode::Direct) {
    offer(*text);
  } else {
    const auto all = handlers();
    for (const auto& handler : *all) handler->sendMsg(*text);
  }
  sending.batch.clear();  // a large text would stay until the next one
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
