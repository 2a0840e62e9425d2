#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "callback_slot.h"
#include "log_facade.h"
#include "socket_owner.h"
#include "stop_signal.h"
#include "text_queue.h"

namespace brix {

/// What is behind TcpServerBroadcaster. Never destroyed: threads of the servers, and objects with
/// static storage, may use it until the very end of the process.
class BroadcastCore {
 public:
  using SendFunc = std::function<void(int, const std::string&)>;

  /// The request to remove a socket's registration. The reservation keeps the number from being
  /// given out again until no registration under it can be mistaken any more.
  struct Release {
    int socket;
    std::shared_ptr<void> reservation;
  };

  /// The core alone, for the broadcaster itself.
  static BroadcastCore& instance();

  /// The core, with its sender thread started. If the system has no thread left, the next call
  /// tries again.
  static BroadcastCore& started();

  /// @return whether the calling thread is the sender or inside the connection listener
  static bool insideCallback();

  void start();
  void shutDown();

  /// Ends the sender thread for good.
  void requestQuit() { quit_.request(); }

  std::string attach(SendFunc fn, int socket);

  /// As above; gives up when `stop` is asked for while another thread holds the listener lock.
  void attachUnless(StopSignal& stop, SendFunc fn, int socket);

  /// Asks for the removal of a registration. Needs no memory.
  void detach(std::list<Release> request) noexcept;

  int push(const std::string& msg);
  void setConnectionListener(std::function<void(bool)> listener);
  void setQueueLimit(std::size_t bytes) { msgQueue_.setLimit(bytes); }
  std::size_t count() const { return count_; }
  void run();

  /// One send on the sender thread, which the end of the process may cut short. On other threads it
  /// does nothing.
  class Sending {
   public:
    explicit Sending(SocketOwner& socket);
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

    /// @return false if the process ends: nothing is to be sent any more
    explicit operator bool() const { return allowed_; }

   private:
    const bool onSender_;
    const bool allowed_;
  };

 private:
  std::string insert(SendFunc fn, int socket);
  void cycle();
  void removeReleased(std::list<Release>& released, std::vector<SendFunc>& removed);
  void sendOne();
  void notify();
  void ended();
  void lost();
  bool enterSend(SocketOwner& socket);
  void leaveSend();

  int attachCount_ = 1;  // listenerLock_, as the three below
  std::map<int, SendFunc> listenerMap_;
  bool senderEnded_ = false;
  LogMutex listenerLock_;              // held while send functions and connection listener run
  std::list<Release> releaseList_;     // listenerLock_
  std::atomic<std::size_t> count_{0};  // of listenerMap_, for those who do not take the lock
  std::atomic<bool> sending_{true};    // until the sender has ended
  StopSignal quit_;
  TextQueue msgQueue_;
  std::mutex startLock_;
  std::thread senderThread_;                // startLock_
  std::atomic<bool> senderStarted_{false};  // for those who do not take the lock
  CallbackSlot<void(bool)> connectionListener_;

  StopSignal processEnd_;
  std::mutex stuckLock_;            // innermost
  SocketOwner* sendsTo_ = nullptr;  // stuckLock_
};

}  // namespace brix
