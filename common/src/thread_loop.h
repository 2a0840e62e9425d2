#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "stop_signal.h"

namespace brix {

class ThreadUnit;

/// The state of a ThreadUnit, shared by the object, its thread and whoever stops it.
///
/// At most one thread runs the loop at any time. The fields keep the names of the unit's state:
/// running (the loop runs and was not asked to stop), quit, thread, period, name.
class ThreadLoop {
 public:
  ThreadLoop(std::string name, double periodMs) : periodMs_(periodMs), name_(std::move(name)) {}

  bool start(ThreadUnit& unit);
  void stop();
  void requestStop();
  void awaitEnding();
  void release();
  void run(ThreadUnit& unit);

  /// Lets the thread call state->cycle() and never touch its unit: a derived class may be under
  /// construction still, or half destroyed. Before the start only. Such a cycle waits by itself:
  /// with a period of 0 there is no pause at all.
  template <typename State>
  void setCycleOf(const std::shared_ptr<State>& state) {
    cycle_ = [weak = std::weak_ptr<State>(state)] {
      if (const auto held = weak.lock()) held->cycle();
    };
  }

  bool running() const { return running_.load(); }
  bool stopAsked() const { return quit_.requested(); }

  /// Pauses inside a cycle, no longer than until the stop.
  void pauseMs(double ms) { quit_.pauseMs(ms); }

  void setPeriod(double periodMs) {
    periodMs_.store(periodMs);
    quit_.wake();
  }
  const std::string& name() const { return name_; }

 private:
  bool onOwnThread() const;
  void pauseBetweenCycles();
  void request();
  void joinEnded();
  void awaitEnding(std::unique_lock<std::mutex>& lock);
  bool enterLoop();
  bool leaveLoop();
  void ended();

  std::atomic<bool> running_{false};
  StopSignal quit_;
  pthread_t thread_{};
  std::atomic<double> periodMs_;
  const std::string name_;
  std::function<void()> cycle_;

  std::mutex mutex_;  // guards thread_, created_, alive_, stopping_ and every change of running_
  std::condition_variable changed_;
  bool created_ = false;  // thread_ is to be joined
  bool alive_ = false;    // a thread is inside run()
  int stopping_ = 0;      // threads that wait for the loop to end
};

}  // namespace brix
