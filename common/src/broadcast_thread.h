#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "callback_slot.h"
#include "stop_signal.h"
#include "thread_mark.h"

namespace brix {

/// The thread that publishes at a rate. Each registration of a function starts a new one, after the
/// one before has ended.
class BroadcastThread {
 public:
  using Body = std::function<void(StopSignal& run)>;

  ~BroadcastThread();

  /// Starts the body on a new thread. Waits for the thread before, which ends when its run is
  /// stopped; on that thread itself the new one takes over when its cycle has returned. A wait ends
  /// without a new thread when this is closed.
  /// @param stopped  whether the owner has been told to stop, which it says before requestStop()
  void start(Body body, const std::function<bool()>& stopped);

  /// Runs the body on the calling thread, as part of the last thread's run if there was one.
  void runHere(const Body& body, const std::function<bool()>& stopped);

  void requestStop();

  /// Lets a pause of the last thread's run test its condition.
  void wake();

  /// Asks for the end and lets no further thread start.
  /// @param wait  return when the thread has ended
  void close(bool wait);

  /// @return the stop signal of the last thread's run; null if there was none
  std::shared_ptr<StopSignal> run() const;

  bool isOwnThread() const { return ThreadMark::standsFor(this); }

 private:
  struct Run {
    StopSignal stop;
    std::atomic<bool> ended{false};
  };

  void publish(const std::shared_ptr<Run>& run, const std::function<bool()>& stopped);
  bool joinPrevious();

  std::mutex lifecycleLock_;
  std::thread thread_;  // lifecycleLock_
  StopSignal closed_;   // woken also when a thread ends
  ValueSlot<std::shared_ptr<Run>> run_;
};

}  // namespace brix
