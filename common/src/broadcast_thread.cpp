#include "broadcast_thread.h"

#include <utility>

#include "worker_thread.h"

namespace brix {

BroadcastThread::~BroadcastThread() {
  detachIfJoinable(thread_);  // the last holder of this object may be that thread
}

void BroadcastThread::start(Body body, bool stopped) {
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
  const auto run = std::make_shared<StopSignal>();
  run_ = run;
  if (closed_ || stopped) run->request();
  const auto takeOver = [this, run, previous, cycles = std::move(body)] {
    joinIfJoinable(*previous);
    const ThreadMark mark(this);
    cycles(*run);
  };
  if (!startThread(thread_, "broadcast thread", takeOver)) detachIfJoinable(*previous);
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
