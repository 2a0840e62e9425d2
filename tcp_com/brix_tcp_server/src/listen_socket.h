#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "accept_guard.h"
#include "safety_options.h"
#include "socket_owner.h"
#include "stop_signal.h"

namespace brix {

/// The listening socket of a server: opened and used by its accept thread, ended and asked about by
/// any other.
class ListenSocket {
 public:
  /// @param stop  the server's stop; once asked for, no port is announced any more
  explicit ListenSocket(StopSignal& stop) : stop_(stop) {}

  /// To be called before listenOn().
  /// @return false, with a log line and nothing changed, if a value is not valid
  bool setSafetyOptions(const ServerSafetyOptions& options);

  /// Opens the socket, in the place of an earlier one.
  /// @return null, or what failed, for the log
  const char* open();

  /// Binds to the port, on every local address unless one is set, and listens. A failure leaves the
  /// socket open.
  /// @return as above
  const char* listenOn(int port);

  /// Waits for a client that may stay; closes the others.
  /// @param peer  gets its address
  /// @param clients  tells how many are connected already
  /// @return its descriptor, which sends small messages at once; -1 on an error and after the end
  int accept(sockaddr_in& peer, const std::function<int()>& clients);

  /// The accept thread could not be started.
  void fail();

  void end();

  /// @return the last descriptor's number, for the log only; -1: never opened
  int number() const;

  /// @return the port; 0 while there is none
  int port() const;

  /// Waits until the socket listens.
  /// @return false when it cannot, was stopped, or the time is over
  bool waitUntilListening(double timeoutMs) const;

 private:
  std::shared_ptr<SocketOwner> socket() const;
  int peerTimeoutMs() const;
  bool readBindAddress(sockaddr_in& address) const;
  void publish(bool failed, int port);

  StopSignal& stop_;
  AcceptGuard guard_;
  mutable std::mutex mutex_;  // innermost; guards what follows
  mutable std::condition_variable changed_;
  std::shared_ptr<SocketOwner> socket_;
  int port_ = 0;
  std::string bindAddress_;
  int peerTimeoutMs_ = 0;
  bool failed_ = false;
};

}  // namespace brix
