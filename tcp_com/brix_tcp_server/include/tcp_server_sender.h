/// @file
/// The sending stage of the command servers.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "tcp_com_export.h"

/// Sends every text to every registered connection of the process's command servers. There is one
/// in a process, and it never restarts: when a client has sent "exit", nothing is sent any more.
///
/// Called from: any thread, also while the process ends; but a send function must not call back.
/// Calls back on
/// - the sender thread: the send functions, and the connection listener after each removal;
/// - the thread that attaches: the connection listener.
/// All under the listener lock, which attaching and detaching wait for: a connection that does not
/// read holds them up. What a callback throws is logged, and the sending goes on.
class TCP_COM_API TcpServerBroadcaster {
 public:
  /// @return the one instance; its thread starts with the first call
  static TcpServerBroadcaster& getInstance();

  TcpServerBroadcaster(const TcpServerBroadcaster&) = delete;
  TcpServerBroadcaster& operator=(const TcpServerBroadcaster&) = delete;

  /// Registers a send function for a socket; an earlier one for that socket is replaced.
  /// @param fn  gets the socket and each text. It may block: that holds up all others.
  /// @param socket  connected descriptor, which stays the caller's
  /// @return a name that differs in each call, such as "tcp_7_1"
  std::string attachListener(std::function<void(int, const std::string&)> fn, int socket);

  /// Asks the sender thread to remove the socket's send function, before it sends another text.
  void detachListener(int socket);

  /// Queues a text, as it stands, for all connections: one text a millisecond leaves. Never blocks.
  /// @return 1; 0 if no connection is registered, the text is then dropped
  int pushMsg(const std::string& msg);

  /// Replaces the one connection listener of the process: true after each attach, and after each
  /// removal whether a connection is left.
  void setConnectionListener(std::function<void(bool)> listener);

  /// @return number of registered sockets
  std::size_t listenerCount();

  /// Body of the sender thread.
  void threadFunc();

  /// At the end of the process: stops the sender thread, whatever connection it is stuck in.
  ~TcpServerBroadcaster();

 private:
  TcpServerBroadcaster();
};
