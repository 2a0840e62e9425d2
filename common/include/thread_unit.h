/// @file
/// Base class of objects with one worker thread of a fixed cycle.
#pragma once

#include <memory>
#include <string>

#include "tcp_com_export.h"

namespace brix {

class ThreadLoop;

/// Owns one thread that calls `threadCycle()` over and over, with a fixed pause between two calls.
///
/// The destructor is not virtual, on purpose: objects are destroyed through their own type. The
/// most derived destructor calls `stop()` first, because a cycle must not run on a half-destroyed
/// object.
///
/// Called from: any thread. Calls back on: the unit's thread (`threadCycle`). An exception that
/// leaves a cycle is logged, and the loop goes on.
class TCP_COM_API ThreadUnit {
 public:
  /// Prints the name on a line of standard output; starts nothing.
  /// @param name  the thread's name; the kernel keeps its first 15 characters
  /// @param periodMs  pause between two cycles, truncated to whole microseconds; a negative one and
  ///   one that is no number count as 0
  ThreadUnit(const std::string& name, double periodMs);

  ThreadUnit(const ThreadUnit&) = delete;
  ThreadUnit& operator=(const ThreadUnit&) = delete;

  /// Prints "start NAME" and starts the thread unless it runs. A thread that is still ending is
  /// waited for; on the unit's own thread a stop that nobody waits for is taken back. If no
  /// thread can be created, nothing happens.
  void start();

  /// The thread's entry.
  /// @param self  the ThreadUnit
  static void* ThreadFunc(void* self);

  /// One cycle. Called on the unit's thread; it may call `stop()` and may destroy the object.
  virtual void threadCycle() = 0;

 protected:
  /// Stops and joins the thread if it runs.
  ~ThreadUnit();

  /// As `start()`.
  /// @return whether the loop runs
  bool tryStart();

  /// Ends the loop. Returns when the thread has ended; on the unit's own thread it returns at once
  /// and the loop ends after the current cycle.
  void stop();

  /// @return whether the loop runs and was not asked to stop
  bool isRunning() const;

  /// Sets the pause between two cycles; the next pause uses it.
  void setPeriod(double periodMs);

  /// What the thread shares with this object, so that a cycle may destroy the object.
  const std::shared_ptr<ThreadLoop>& loop() const { return loop_; }

 private:
  std::shared_ptr<ThreadLoop> loop_;
};

}  // namespace brix
