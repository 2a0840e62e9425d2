/// @file
/// The client of the command server that applications use.
#pragma once

#include <memory>
#include <string>

#include "recieve_listener.h"
#include "safety_options.h"
#include "tcp_com_export.h"
#include "thread_unit.h"

namespace brix {

/// A client that runs by itself: it receives, cuts messages, hands them to listeners, sends queued
/// requests and a heartbeat each second, and takes the link for dead after 1.5 s in which no
/// message was handed out.
///
/// Deliberately odd:
/// - With several listeners the messages go round: each listener in turn gets the next one, or an
///   empty text when none is left in the round. Without a listener nothing is ever handed out:
///   messages pile up, and a waiting message hides a dead link.
/// - CR LF is appended to every request, also to one that has it.
/// - Requests that were not sent, and an unfinished message, survive until the next connection.
///
/// Called from: any thread; attach listeners before connecting. Calls back on the broadcast thread,
/// without a lock: the listeners. A listener may call every operation and may destroy the client:
/// there these only ask the client's threads to end and do not wait for them. What a listener
/// throws is logged, and the delivery goes on.
class TCP_COM_API TcpClientWrapper : public ThreadUnit {
 public:
  /// Starts the unit's thread "tcp_com", which idles until a connection is made.
  TcpClientWrapper();

  /// Disconnects and joins the threads, within 100 ms plus what a running listener takes. Inside a
  /// listener it does not wait.
  ~TcpClientWrapper();

  TcpClientWrapper(const TcpClientWrapper&) = delete;
  TcpClientWrapper& operator=(const TcpClientWrapper&) = delete;

  /// Sets limits and checks; the next connection has them.
  void setSafetyOptions(const ClientSafetyOptions& options);

  /// Connects, waiting one second at most, and starts the threads. While connected it disconnects
  /// first and pauses 3 s. Two threads that connect do so one after the other; inside a listener it
  /// gives way, and fails, while another thread connects.
  /// @param ip  dotted IPv4 address; one that does not parse stands for this machine
  /// @param port  1 to 65535; with another one connecting fails
  /// @return 1 when connected; -1 if not, or if a thread could not be started
  int connectSocket(const std::string& ip, int port);

  /// Queues a request.
  /// @param name, timeout  accepted and ignored
  /// @param msg  without delimiter
  /// @return false when not connected
  bool send(const std::string& name, const std::string& msg, double timeout);

  /// Appends a listener, which is not owned. A duplicate takes two turns, null takes a turn in
  /// which a message is dropped. There is no removal.
  void attachListener(iRecieveListener* listener);

  bool isConnected();

  /// Ends the connection; the threads end by themselves.
  void disConnected();

  /// @name Thread bodies
  /// @{
  void threadCycle() final;
  void broadcastData();
  void sendHeartbeatFunc();
  void sendRequestFunc();
  /// @}

  class State;

 private:
  std::shared_ptr<State> state_;  // shared with the threads
};

}  // namespace brix
