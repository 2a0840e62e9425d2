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
    joinIfJoinable(thread_);
  }
  const auto run = beginRun(stopped);
  const auto takeOver = [this, run, previous, cycles = std::move(body)] {
    joinIfJoinable(*previous);
    const ThreadMark mark(this);
    cycles(*run);
  };
  if (startThread(thread_, "broadcast thread", takeOver)) return;
  run->request();  // nobody is left to wait for
  detachIfJoinable(*previous);
}

// Published before it is asked about: a stop that comes in between finds one or the other.
std::shared_ptr<StopSignal> BroadcastThread::beginRun(const std::function<bool()>& stopped) {
  auto run = std::make_shared<StopSignal>();
  run_ = run;
  if (closed_ || stopped()) run->request();
  return run;
}

void BroadcastThread::runHere(const Body& body, const std::function<bool()>& stopped) {
  auto run = run_.load();
  if (!run) run = beginRun(stopped);
  const ThreadMark mark(this);
  body(*run);
}

void BroadcastThread::requestStop() {
  if (const auto run = run_.load()) run->request();
}

void BroadcastThread::close(bool wait) {
  closed_ = true;
  requestStop();  // also of a thread that has just been started
  if (!wait) return;
  std::lock_guard<std::mutex> lock(lifecycleLock_);
  joinIfJoinable(thread_);
}

}  // namespace brix
