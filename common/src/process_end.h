#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace brix {

/// Lets processEnds() tell objects that exist already that they are being destroyed because the
/// process ends, on whatever thread they are.
void watchProcessEnd() noexcept;

/// For destructors: finds out whether the calling thread is ending the process right now, however
/// early in the life of the process that is. From then on processEnds() says so on every thread.
void noticeProcessEnd() noexcept;

/// As above, for code that only runs at the end of the process.
void announceProcessEnd() noexcept;

/// @return whether the process is known to end
bool processEnds() noexcept;

/// At the end of the process a thread may never get out of a callback: it may be ending the process
/// as well. Then the waits of all stops together last one second at most.
/// @return whether that second is over
bool lastWaitOver() noexcept;
void pauseInLastWait() noexcept;

/// Joins a thread, at the end of the process only within the last wait; then it is detached.
void joinOrLeave(pthread_t thread) noexcept;

/// As above; the calling thread itself is detached at once.
void joinIfJoinable(std::thread& handle) noexcept;

/// Takes a lock, at the end of the process only within the last wait.
template <typename Lockable>
std::unique_lock<Lockable> lockOrLeave(Lockable& mutex) {
  if (!processEnds()) return std::unique_lock<Lockable>(mutex);
  std::unique_lock<Lockable> lock(mutex, std::try_to_lock);
  while (!lock && !lastWaitOver()) {
    pauseInLastWait();
    lock.try_lock();
  }
  return lock;
}

/// Waits on a condition, at the end of the process only within the last wait.
template <typename Predicate>
void waitOrLeave(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                 Predicate predicate) {
  if (!processEnds()) {
    condition.wait(lock, predicate);
    return;
  }
  while (!predicate() && !lastWaitOver()) {
    condition.wait_for(lock, std::chrono::milliseconds(1), predicate);
  }
}

}  // namespace brix
