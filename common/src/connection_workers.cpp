#include "connection_workers.h"

#include <utility>

#include "process_end.h"
#include "worker_thread.h"

namespace brix {

ConnectionWorkers::~ConnectionWorkers() {
  // The last holder is either done with joining or the last of these threads itself.
  std::lock_guard<std::mutex> lock(handlesLock_);
  for (std::thread* worker : {&broadcastThread, &heartbeatThread, &sendThread}) {
    detachIfJoinable(*worker);
  }
}

bool ConnectionWorkers::start(const std::shared_ptr<ConnectionWorkers>& own, std::thread& worker,
                              const char* name, std::function<void()> body) {
  struct Running {  // counts the worker until it has ended, however it ends
    explicit Running(std::shared_ptr<ConnectionWorkers> counted) : workers(std::move(counted)) {
      ++workers->running_;
    }
    ~Running() { --workers->running_; }
    const std::shared_ptr<ConnectionWorkers> workers;
  };
  const auto running = std::make_shared<Running>(own);
  std::thread started;
  if (!startThread(started, name, [running, run = std::move(body)] { run(); })) return false;
  std::lock_guard<std::mutex> lock(own->handlesLock_);
  worker = std::move(started);
  return true;
}

void ConnectionWorkers::joinAll() {
  join(broadcastThread);
  join(heartbeatThread);
  join(sendThread);
}

void ConnectionWorkers::join(std::thread& worker) {
  std::thread taken;
  {
    std::lock_guard<std::mutex> lock(handlesLock_);
    if (isOwnThread(worker)) return;
    taken.swap(worker);
  }
  joinIfJoinable(taken);
}

void RetiredWorkers::add(std::shared_ptr<ConnectionWorkers> old) noexcept {
  if (!old) return;
  old->stop.request();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const ConnectionWorkers* kept = first_.get(); kept != nullptr; kept = kept->next_.get()) {
    if (kept == old.get()) return;
  }
  old->next_ = std::move(first_);
  first_ = std::move(old);
}

void RetiredWorkers::join(bool onlyEnded) {
  while (const auto old = take(onlyEnded)) old->joinAll();
}

std::shared_ptr<ConnectionWorkers> RetiredWorkers::take(bool onlyEnded) noexcept {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto* link = &first_; *link; link = &(*link)->next_) {
    if (onlyEnded && !(*link)->ended()) continue;
    auto next = std::move((*link)->next_);
    std::swap(*link, next);
    return next;
  }
  return nullptr;
}

}  // namespace brix
