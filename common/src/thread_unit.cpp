#include "thread_unit.h"

#include <sys/prctl.h>

#include <cstdio>

#include "callback_guard.h"
#include "process_end.h"
#include "thread_loop.h"
#include "thread_mark.h"

namespace brix {

bool ThreadLoop::onOwnThread() const {
  return ThreadMark::standsFor(this);
}

// Starting waits for a thread that is still ending, so that two loops never run side by side. On
// the loop's own thread that would be endless: there a stop that nobody waits for is taken back,
// and the thread goes on.
bool ThreadLoop::start(ThreadUnit& unit) {
  std::printf("start %s\n", name_.c_str());
  std::unique_lock<std::mutex> lock(mutex_);
  if (onOwnThread()) {
    if (stopping_ > 0) return false;
    quit_.reset();
    running_ = true;
    changed_.notify_all();
    return true;
  }
  awaitEnding(lock);
  if (running_) return true;
  joinEnded();
  const bool quitBefore = quit_.requested();
  quit_.reset();  // before the thread exists: it must not read the request of an earlier stop
  if (pthread_create(&thread_, nullptr, &ThreadUnit::ThreadFunc, &unit) != 0) {
    if (quitBefore) quit_.request();
    return false;
  }
  created_ = true;
  alive_ = true;
  running_ = true;
  return true;
}

// Stop sequence: 1. quit flag, which ends the pause; 2. wait until the loop has ended; 3. join. On
// the loop's own thread only 1.
void ThreadLoop::stop() {
  std::unique_lock<std::mutex> lock(mutex_);
  request();
  if (onOwnThread()) return;
  ++stopping_;
  waitOrLeave(changed_, lock, [this] { return !alive_; });
  --stopping_;
  joinEnded();
  changed_.notify_all();
}

/// Waits until no stop is under way, unless this is the loop's own thread.
void ThreadLoop::awaitEnding() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!onOwnThread()) awaitEnding(lock);
}

void ThreadLoop::awaitEnding(std::unique_lock<std::mutex>& lock) {
  changed_.wait(lock, [this] { return stopping_ == 0 && (running_ || !alive_); });
}

void ThreadLoop::requestStop() {
  std::lock_guard<std::mutex> lock(mutex_);
  request();
}

void ThreadLoop::request() {
  if (!alive_) return;
  quit_.request();
  running_ = false;
}

// The object goes away. On its own thread nobody is left to join.
void ThreadLoop::release() {
  stop();
  if (!onOwnThread()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (created_) pthread_detach(thread_);
  created_ = false;
}

// The thread has left run(), or is about to: the join is short.
void ThreadLoop::joinEnded() {
  if (created_) joinOrLeave(thread_);
  created_ = false;
}

bool ThreadLoop::enterLoop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (quit_.requested()) {
    ended();
    return false;
  }
  running_ = true;
  alive_ = true;
  return true;
}

/// @return false if the loop goes on
bool ThreadLoop::leaveLoop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!quit_.requested()) return false;
  ended();
  return true;
}

void ThreadLoop::ended() {
  running_ = false;
  alive_ = false;
  changed_.notify_all();
}

// Even a pause of 0 takes its time.
void ThreadLoop::pauseBetweenCycles() {
  if (!cycle_) {
    quit_.pauseMs(periodMs_);
  } else if (periodMs_ > 0) {
    quit_.pauseMs(periodMs_, [this] { return !(periodMs_ > 0); });
  }
}

void ThreadLoop::run(ThreadUnit& unit) {
  prctl(PR_SET_NAME, name_.c_str());  // a failure only costs the name
  const ThreadMark mark(this);
  if (!enterLoop()) return;
  struct Leaver {  // a cycle may end its thread with pthread_exit
    ThreadLoop& loop;
    bool left = false;
    ~Leaver() {
      if (left) return;
      std::lock_guard<std::mutex> lock(loop.mutex_);
      loop.ended();
    }
  } leaver{*this};
  do {  // after a cycle that destroyed the unit, quit is set and the unit is not touched again
    guarded("threadCycle exception: %s", [&] { cycle_ ? cycle_() : unit.threadCycle(); });
    pauseBetweenCycles();
    leaver.left = leaveLoop();
  } while (!leaver.left);
}

ThreadUnit::ThreadUnit(const std::string& name, double periodMs)
    : loop_(std::make_shared<ThreadLoop>(name, periodMs)) {
  std::puts(name.c_str());
}

ThreadUnit::~ThreadUnit() {
  noticeProcessEnd();
  loop_->release();
}

void ThreadUnit::start() {
  tryStart();
}

bool ThreadUnit::tryStart() {
  return loop_->start(*this);
}

void ThreadUnit::stop() {
  loop_->stop();
}

bool ThreadUnit::isRunning() const {
  return loop_->running();
}

void ThreadUnit::setPeriod(double periodMs) {
  loop_->setPeriod(periodMs);
}

void* ThreadUnit::ThreadFunc(void* self) {
  auto* unit = static_cast<ThreadUnit*>(self);
  {
    const std::shared_ptr<ThreadLoop> loop = unit->loop_;
    loop->run(*unit);
  }
  pthread_exit(nullptr);
}

}  // namespace brix
