#include "broadcast_thread.h"

#include <utility>

#include "worker_thread.h"

namespace brix {

BroadcastThread::~BroadcastThread() {
  detachIfJoinable(thread_);  // the last holder of this object may be that thread
}

void BroadcastThread::start(Body body, const std::function<bool()>& stopped) {
  std::unique_lock<std::mutex> lock(lifecycleLock_, std::defer_lock);
  const auto previous = std::make_shared<std::thread>();
  if (isOwnThread()) {
    if (!lock.try_lock()) return;  // another registration is waiting for this very thread
    requestStop();
    previous->swap(thread_);
  } else {
    lock.lock();
    if (!joinPrevious()) return;
  }
  const auto run = beginRun(stopped);
  const auto takeOver = [this, run, previous, cycles = std::move(body)] {
    struct Ender {
      BroadcastThread& thread;
      Run& run;
      ~Ender() {
        run.ended = true;
        thread.closed_.wake();
      }
    } const ender{*this, *run};
    joinIfJoinable(*previous);
    const ThreadMark mark(this);
    cycles(run->stop);
  };
  if (startThread(thread_, "broadcast thread", takeOver)) return;
  run->stop.request();  // nobody is left to wait for
  detachIfJoinable(*previous);
}

// The thread may be inside a function that closes this, and waits for the caller.
/// @return false if this is closed
bool BroadcastThread::joinPrevious() {
  if (!thread_.joinable()) return true;
  const auto run = run_.load();
  while (!run->ended && !closed_.requested()) {
    closed_.pauseMs(kRetestMs, [&run] { return run->ended.load(); });
  }
  if (!run->ended) return false;
  thread_.join();
  return true;
}

// Published before it is asked about: a stop that comes in between finds one or the other.
std::shared_ptr<BroadcastThread::Run> BroadcastThread::beginRun(
    const std::function<bool()>& stopped) {
  auto run = std::make_shared<Run>();
  run_ = run;
  if (closed_.requested() || stopped()) run->stop.request();
  return run;
}

void BroadcastThread::runHere(const Body& body, const std::function<bool()>& stopped) {
  auto run = run_.load();
  if (!run) run = beginRun(stopped);
  const ThreadMark mark(this);
  body(run->stop);
}

void BroadcastThread::requestStop() {
  if (const auto run = run_.load()) run->stop.request();
}

void BroadcastThread::close(bool wait) {
  closed_.request();
  requestStop();  // also of a thread that has just been started
  if (!wait) return;
  std::lock_guard<std::mutex> lock(lifecycleLock_);
  joinIfJoinable(thread_);
}

std::shared_ptr<StopSignal> BroadcastThread::run() const {
  const auto run = run_.load();
  return run ? std::shared_ptr<StopSignal>(run, &run->stop) : nullptr;
}

}  // namespace brix
