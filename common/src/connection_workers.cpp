#include "connection_workers.h"

#include <algorithm>
#include <iterator>
#include <utility>

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

void RetiredWorkers::add(const std::shared_ptr<ConnectionWorkers>& old) {
  if (!old) return;
  old->stop.request();
  std::lock_guard<std::mutex> lock(mutex_);
  retired_.push_back(old);
}

void RetiredWorkers::join(bool onlyEnded) {
  std::vector<std::shared_ptr<ConnectionWorkers>> ended;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ended.swap(retired_);
    if (onlyEnded) {
      const auto running = [](const auto& old) { return !old->ended(); };
      std::copy_if(ended.begin(), ended.end(), std::back_inserter(retired_), running);
      ended.erase(std::remove_if(ended.begin(), ended.end(), running), ended.end());
    }
  }
  for (const auto& old : ended) old->joinAll();
}

}  // namespace brix
