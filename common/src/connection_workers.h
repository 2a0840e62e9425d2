#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "stop_signal.h"

namespace brix {

/// The worker threads of one connection. They end on its own stop signal, so that a new connection
/// never meets the workers of the one before.
class ConnectionWorkers {
 public:
  ConnectionWorkers() = default;
  ConnectionWorkers(const ConnectionWorkers&) = delete;
  ConnectionWorkers& operator=(const ConnectionWorkers&) = delete;

  /// Starts one of the threads below.
  /// @param own  kept until the worker has ended
  /// @param name  for the log
  /// @return false, with a log line, if the system has no thread left
  static bool start(const std::shared_ptr<ConnectionWorkers>& own, std::thread& worker,
                    const char* name, std::function<void()> body);

  /// Joins the workers, except one that calls this.
  void joinAll();
  void join(std::thread& worker);

  bool ended() const { return running_ == 0; }

  StopSignal stop;
  std::thread broadcastThread;
  std::thread heartbeatThread;
  std::thread sendThread;

 protected:
  ~ConnectionWorkers();

 private:
  friend class RetiredWorkers;

  std::atomic<int> running_{0};              // workers that have not ended
  std::shared_ptr<ConnectionWorkers> next_;  // in the list of the retired
  std::mutex handlesLock_;  // innermost; guards the handles: a thread is joined by who took it out
};

/// Connections that are over, whose workers are still to be joined. A list that needs no memory of
/// its own: destructors add to it.
class RetiredWorkers {
 public:
  /// Asks the workers to end and keeps them; null is ignored.
  void add(std::shared_ptr<ConnectionWorkers> old) noexcept;

  /// @param onlyEnded  leave those that still run: one of them may be waiting for this thread
  void join(bool onlyEnded);

 private:
  std::shared_ptr<ConnectionWorkers> take(bool onlyEnded) noexcept;

  std::mutex mutex_;  // innermost
  std::shared_ptr<ConnectionWorkers> first_;
};

}  // namespace brix
