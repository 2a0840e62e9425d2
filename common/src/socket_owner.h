#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

struct sockaddr_in;

namespace brix {

/// The one owner of a socket descriptor, shared by the threads that use it.
///
/// end() shuts the connection down at once, which wakes every blocked call; the descriptor is
/// closed when the last call has left it. So it is closed exactly once, and no call ever reaches a
/// number that was given out again. All operations may be called from any thread, in any order,
/// repeatedly.
class SocketOwner {
 public:
  /// Takes the descriptor over and keeps it from child processes.
  explicit SocketOwner(int fd) noexcept;

  /// As above; closes the descriptor if there is no memory for its owner.
  static std::shared_ptr<SocketOwner> make(int fd);

  /// Ends the connection.
  ~SocketOwner();

  SocketOwner(const SocketOwner&) = delete;
  SocketOwner& operator=(const SocketOwner&) = delete;

  /// Keeps the descriptor open while it lives, unless the connection has ended.
  class Use {
   public:
    explicit Use(SocketOwner& owner) noexcept;
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const noexcept { return entered_; }
    int fd() const noexcept { return owner_.fd_; }

   private:
    SocketOwner& owner_;
    bool entered_;
  };

  /// The descriptor's number, also after the end; for the log only.
  int number() const noexcept { return fd_; }

  void end() noexcept;

  /// Gives the descriptor up without closing it.
  void abandon() noexcept;

  /// One send of all bytes, as if by one call; retried if a signal came before any byte went. Never
  /// raises SIGPIPE.
  /// @return as send(2); -1 with EBADF after the end
  ssize_t send(const void* data, std::size_t size, int flags) noexcept;

  /// One recv; retried if a signal came.
  /// @return as recv(2); -1 with EBADF after the end
  ssize_t recv(void* buffer, std::size_t size, int flags) noexcept;

  /// One recv that waits `ms` milliseconds at most, less if a signal comes. Always with the same
  /// `ms`, by one thread.
  /// @return as recv(2); -1 with EAGAIN if nothing came
  ssize_t recvFor(void* buffer, std::size_t size, int ms) noexcept;

  /// @param peer  gets the address of who connected
  /// @return the accepted descriptor; -1 on an error and after the end
  int accept(sockaddr_in& peer) noexcept;

  /// @param wakeUp  a descriptor that ends the wait as well; -1: none
  /// @return false if `ms` milliseconds passed without anything to read
  bool waitReadable(double ms, int wakeUp = -1) noexcept;

 private:
  enum class State { Open, Ended, Abandoned };

  bool enter() noexcept;
  void leave() noexcept;

  const int fd_;
  std::mutex mutex_;  // innermost
  State state_;
  int users_ = 0;
  enum class Limit { None, Refused, Set };
  std::atomic<Limit> recvLimit_{Limit::None};  // whether the system ends each recv after a while
};

/// Waits for `events` on a descriptor, or for something to read on another one, at most `ms`
/// milliseconds, whatever signals come.
/// @return as poll(2)
int pollFor(int fd, short events, double ms, int wakeUp = -1) noexcept;

/// @return whether a send or recv has failed because it would have blocked
bool wouldBlock() noexcept;

}  // namespace brix
