/// @file
/// The multi-connection server and the handler of one of its connections.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "basic_server_interface.h"
#include "callback_slot.h"
#include "delivery_mode.h"
#include "safety_options.h"
#include "tcp_com_export.h"

namespace brix {

/// When a handler's thread begins to read.
enum class HandlerStart {
  Now,   ///< at once
  Held,  ///< at release(), so that callbacks and delimiter are in place before the first byte
};

/// Serves one accepted connection: reads, cuts and hands over messages; writes what it is given.
///
/// Called from: any thread. Calls back on: the handler's own thread, which has a stack of 1 MiB, no
/// lock held. A callback may call every operation and may drop the last reference to the handler;
/// what it throws is logged, and the handler goes on.
class TCP_COM_API TcpServerHandler {
  friend class BrixTcpServer;
  struct State;
  std::shared_ptr<State> state_;  // shared with the thread

 public:
  /// Takes the socket over and starts the receiving thread.
  /// @param socket  connected descriptor; the handler closes it
  /// @param id  given back by the quit callback
  /// @param interval  milliseconds of pause before each read
  TcpServerHandler(int socket, int id, int interval);
  TcpServerHandler(int socket, int id, int interval, HandlerStart start);

  /// Ends the connection and joins the thread; on the handler's own thread it says so in the log
  /// and lets the thread end by itself.
  ~TcpServerHandler();

  TcpServerHandler(const TcpServerHandler&) = delete;
  TcpServerHandler& operator=(const TcpServerHandler&) = delete;

  /// @return false if no thread could be created; the connection is then closed
  bool started() const;

  /// maxMessageBytes and peerTimeoutMs are this class's; to be called before release().
  void setSafetyOptions(const ServerSafetyOptions& options);

  /// Lets a handler that was created Held read.
  void release();

  /// The receive loop; runs on the handler's thread.
  void recieveThreadFunc(int interval);

  /// Sends bytes as they stand, with one call whose result is ignored. Blocks while the peer does
  /// not read; never raises SIGPIPE.
  void sendMsg(const std::string& data);

  /// Ends the connection at once; does not wait for the thread, which still calls the quit
  /// callback.
  void terminate();

  CallbackSlot<void(const std::string&)>& msgCallback;  ///< gets each complete message
  CallbackSlot<void(int)>& quitCallback;  ///< gets the id, once, when the connection has ended
  ValueSlot<std::string>& delimiter;      ///< ends a message; empty: each chunk is one message
};

/// Listens on one port, accepts any number of clients, and moves one message per rate period and
/// direction: all clients' messages come in through one queue, each outgoing message goes to all.
///
/// Called from: any thread. Calls back on
/// - the accept thread: the connection listener with true, for every client;
/// - the monitor thread: the connection listener with false, when no client is left;
/// - the receive thread: the message listener, under the receive lock; in direct delivery (see
///   DeliveryMode) the thread that reads the client, under the same lock.
/// A listener may send, set rates, register listeners, call `terminateServer()` and destroy the
/// server: on these threads a stop is only asked for, and the next stop from outside, or the
/// destructor, waits for the threads. A listener must not wait for another thread that stops this
/// server. What a listener throws is logged, and the thread goes on. A client that does not read
/// holds up the sending to the others, and new clients, until it reads, leaves or the server stops;
/// in DeliveryMode::Direct it holds up nobody, and what it did not take waits for it alone.
class TCP_COM_API BrixTcpServer : public BasicServerInterface {
 public:
  BrixTcpServer();

  /// Stops as `terminateServer()` and waits for every handler. On one of the server's own threads
  /// it does not wait.
  ~BrixTcpServer() override;

  BrixTcpServer(const BrixTcpServer&) = delete;
  BrixTcpServer& operator=(const BrixTcpServer&) = delete;

  /// Sets limits and checks; to be called before the start.
  /// @return false, with a log line and nothing changed, after the start, for a negative number,
  ///   and if allowedPeers cannot be read
  bool setSafetyOptions(const ServerSafetyOptions& options);

  /// Sets how messages are handed over, and which thread calls the message listener; to be called
  /// before the start, later it is refused with a log line. Default: Polled.
  void setDeliveryMode(DeliveryMode mode);

  /// Starts the threads. Call it once: on a running server it is refused with a log line, and a
  /// stopped server stays stopped.
  /// @param port  0 lets the kernel choose one
  /// @return always 1; a port that cannot be opened shows in the log and in waitUntilListening()
  int initialize(int port) override;

  /// Stops accepting, ends every connection and joins the threads; returns within 100 ms plus what
  /// a running listener takes. May be called again.
  void terminateServer() override;

  void registerConnectionListener(std::function<void(bool)> listener) override;
  void registerMsgListener(std::function<void(const std::string&)> listener) override;

  /// Queues one message, with the delimiter appended, for all clients, or in direct delivery writes
  /// it at once as far as they take it. Never waits for a client. Messages queued while nobody is
  /// connected wait for one.
  void sendMsg(const std::string& msg) override;

  /// Sets the pause between two sends in milliseconds; to 0 and from 0 it takes effect at once.
  void setSendRate(double rate) override;

  /// As above, between two deliveries. A client that is connected keeps its pause between two
  /// reads, the whole milliseconds of the rate at which it came.
  void setRecvRate(double rate) override;

  /// @return whether accept, send and receive thread have ended in order; false, on purpose, on a
  ///   server that could not open its port
  bool releaseAble() override;

  /// @return the port that the server listens on; 0 while it does not
  int listeningPort() const;

  /// Waits until the server listens.
  /// @return false when it cannot open its port, was stopped, or the time is over
  bool waitUntilListening(double timeoutMs) const;

  /// @name Steps of the server's threads
  /// @{
  void waitForConnectionThreadFunc(int port);
  void creatSocketHandle(int socket);
  void popSocketHandle(int id);
  void recieveMsgCallback(const std::string& msg);
  void connectionNotify(bool connected);
  void minitorThread();
  void sendMsgThreadFunc();
  void recieveMsgThreadFunc();
  /// @}

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the threads
};

}  // namespace brix
