#pragma once

#include <signal.h>

#include <cerrno>
#include <ctime>

namespace brix {

/// Keeps a SIGPIPE that a write raises away from the process, whose handlers stay untouched.
///
/// The mask is set for the one call only and not for a thread's life, because a blocked mask would
/// be inherited by every child that application code starts on that thread.
class SigpipeGuard {
 public:
  enum class Block {
    Sigpipe,     ///< the write may be interrupted
    AllSignals,  ///< a signal must not cut the write in two
  };

  explicit SigpipeGuard(Block block) noexcept {
    sigset_t blocked;
    sigemptyset(&blocked);
    if (block == Block::AllSignals) {
      sigfillset(&blocked);
    } else {
      sigaddset(&blocked, SIGPIPE);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
  }

  /// To be called after a write that failed with EPIPE: takes the signal that it left behind.
  void consume() const noexcept {
    if (wasPending_) return;  // not ours
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    const timespec atOnce{};
    while (sigtimedwait(&sigpipe, nullptr, &atOnce) == -1 && errno == EINTR) {
    }
  }

  ~SigpipeGuard() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t before_{};
  bool wasPending_ = false;
};

}  // namespace brix
