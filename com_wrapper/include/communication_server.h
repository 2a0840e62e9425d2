/// @file
/// The server that applications use.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "basic_server_interface.h"
#include "tcp_com_export.h"

namespace brix {

/// Answers requests and publishes a text at a fixed rate, over a transport that the application
/// hands in. All texts are plain: this class neither parses nor builds JSON.
///
/// Use: setServerHandle, rates and functions, initialize; terminate, destruction.
///
/// Called from: any thread; configure before `initialize`. Calls back on
/// - the transport's receive thread, or with direct delivery the one that reads the client, under
///   the raw-data lock: the raw-data function;
/// - the transport's accept and monitor threads, under the state lock: the connection listener;
/// - the broadcast thread, under the state lock: the broadcast function;
/// - the thread that sends: the sent-message observer.
/// A callback may call every operation, among them `terminate()` and the destructor: there they
/// only ask the threads to end and return without waiting. Three things a callback must not do:
/// - register a second broadcast function outside the broadcast thread, which waits, see there;
/// - stop the transport directly from the broadcast function, instead of through this class;
/// - call `terminate()` in a callback that an earlier transport, still registered, delivers.
/// What a callback throws is logged by the thread that runs it, and the thread goes on.
class TCP_COM_API CommunicationServer {
 public:
  CommunicationServer();

  /// `terminate()`, then joins the broadcast thread; returns when no callback runs any more. Inside
  /// a callback it does not wait.
  ~CommunicationServer();

  CommunicationServer(const CommunicationServer&) = delete;
  CommunicationServer& operator=(const CommunicationServer&) = delete;

  /// Sets the transport and registers this server on it. A previous transport keeps its
  /// registration, and rates set earlier are not passed on, both on purpose.
  void setServerHandle(std::shared_ptr<BasicServerInterface> handle);

  /// Starts the transport.
  /// @return the transport's result; -1 without a transport
  int initialize(int port);

  /// Stops the transport and asks the broadcast thread to end, without joining it.
  void terminate();

  /// Sets the transport's send period in milliseconds. While a broadcast function is set, a period
  /// longer than the broadcast period becomes half the broadcast period.
  void setSendRate(double rate);

  /// Sets the transport's receive period in milliseconds.
  void setRecvRate(double rate);

  /// Sets the broadcast period in milliseconds, from the next cycle on; refused with a log line if
  /// it is shorter than the send period.
  void setBroadcastRate(double rate);

  /// Sets the function whose text goes to all clients every `rate` milliseconds while anyone is
  /// connected; an empty text is not sent. A second registration from outside the broadcast thread
  /// waits until another thread calls `terminate()`, on purpose; from the broadcast function itself
  /// it takes over at once.
  void registerBroadcastFunc(std::function<std::string()> func, double rate);

  /// Replaces the request handler: it gets each message, and the text it returns, unless empty,
  /// goes to all clients. With none, messages are dropped.
  void registerRawDataBroadcastFunc(std::function<std::string(const std::string&)> func);

  /// Replaces the connection listener: true for each client that arrives, false when none is left.
  void registerConnectionListener(std::function<void(bool)> listener);

  /// Replaces the observer, which gets every non-empty text given to `sendMsg`, connected or not.
  /// While one is set, broadcasting goes on without a client.
  void registerSentMsgObserver(std::function<void(const std::string&)> observer);

  /// Sends a text to all clients; an empty one is ignored. Nothing is sent while nobody is
  /// connected.
  void sendMsg(const std::string& msg);

  /// @name Steps of the threads
  /// @{
  /// The transport's message listener. What the raw-data function throws passes through.
  void recieveMsgCallback(const std::string& msg);
  /// The transport's connection listener. What the listener throws passes through.
  void connectionNotify(bool connected);
  /// Body of the broadcast thread.
  void broadcastAutomaticFunc();
  /// @}

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the broadcast thread and the transport's listeners
};

}  // namespace brix
