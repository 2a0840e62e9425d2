#include "broadcast_thread.h"

#include <utility>

#include "process_end.h"
#include "worker_thread.h"

namespace brix {

BroadcastThread::~BroadcastThread() {
  detachIfJoinable(thread_);  // the last holder of this object may be that thread
}

void BroadcastThread::start(Body body, const std::function<bool()>& stopped) {
  std::unique_lock<std::mutex> lock(lifecycleLock_, std::defer_lock);
  const auto previous = std::make_shared<std::thread>();
  const bool own = isOwnThread();
  if (own) {
    if (!lock.try_lock()) return;  // another registration is waiting for this very thread
  } else {
    lock.lock();
    if (!joinPrevious()) return;
  }
  const auto run = std::make_shared<Run>();
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
  const auto before = run_.load();
  previous->swap(thread_);
  publish(run, stopped);
  if (startThread(thread_, "broadcast thread", takeOver)) {
    if (own && before) before->stop.request();
    return;
  }
  previous->swap(thread_);  // the thread before, if there was one, goes on
  if (own) publish(before, stopped);
  if (own && before && run->stop.requested()) before->stop.request();
  run->stop.request();
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
  joinIfJoinable(thread_);
  return true;
}

// Published before it is asked about: a stop that comes in between finds one or the other.
void BroadcastThread::publish(const std::shared_ptr<Run>& run,
                              const std::function<bool()>& stopped) {
  run_ = run;
  if (run && (closed_.requested() || stopped())) run->stop.request();
}

void BroadcastThread::runHere(const Body& body, const std::function<bool()>& stopped) {
  std::shared_ptr<Run> run = run_.load();
  if (!run) {
    std::lock_guard<std::mutex> lock(lifecycleLock_);
    run = run_.load();
    if (!run) publish(run = std::make_shared<Run>(), stopped);
  }
  const ThreadMark mark(this);
  body(run->stop);
}

void BroadcastThread::requestStop() {
  if (const auto run = run_.load()) run->stop.request();
}

void BroadcastThread::wake() {
  if (const auto run = run_.load()) run->stop.wake();
}

void BroadcastThread::close(bool wait) {
  closed_.request();
  requestStop();  // also of a thread that has just been started
  if (!wait) return;
  if (const auto lock = lockOrLeave(lifecycleLock_)) joinIfJoinable(thread_);
}

std::shared_ptr<StopSignal> BroadcastThread::run() const {
  const auto run = run_.load();
  return run ? std::shared_ptr<StopSignal>(run, &run->stop) : nullptr;
}

}  // namespace brix
