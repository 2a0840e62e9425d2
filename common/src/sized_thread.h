#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

namespace brix {

/// A worker thread whose stack has a size of its own choice, for objects that there may be a
/// thousand of. Used by one thread.
class SizedThread {
 public:
  SizedThread() = default;
  SizedThread(const SizedThread&) = delete;
  SizedThread& operator=(const SizedThread&) = delete;

  /// A thread that was not joined goes on by itself.
  ~SizedThread() { detach(); }

  /// Starts the body, once. What it throws is logged.
  /// @param what  names the thread in log lines
  /// @return false, with a log line, if the system has no thread left
  bool start(const char* what, std::size_t stackBytes, std::function<void()> body);

  bool joinable() const { return joinable_; }
  bool isOwn() const { return joinable_ && pthread_equal(thread_, pthread_self()) != 0; }
  void join() noexcept;
  void detach() noexcept;

 private:
  pthread_t thread_{};
  bool joinable_ = false;
};

}  // namespace brix
