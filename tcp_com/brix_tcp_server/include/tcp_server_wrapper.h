/// @file
/// The command server that applications use.
#pragma once

#include <json/json.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "recieve_listener.h"
#include "safety_options.h"
#include "tcp_com_export.h"

namespace brix {

/// Answers JSON commands by registered handlers and publishes a JSON value at a fixed rate.
///
/// A request is an object with "command". The handler's object, completed by "code" and "msg", is
/// the reply; it goes to every connected client, so clients tell replies apart by "command" and by
/// keys of their own. "heartbeat" is answered from the start.
///
/// Use: construction with -1, setHandleMap, registerBroadcastFunc, init; quit, destruction.
///
/// Called from: any thread; register handlers and the broadcast function before clients connect.
/// Calls back on
/// - one thread a client, without a lock, several at once: the handlers;
/// - the broadcast thread, under the state lock: the broadcast function.
/// A callback may call every operation, among them quit() and the destructor: on the server's own
/// threads these do not wait for each other. What a handler throws is answered as a failure; what a
/// broadcast function throws is logged. A process has one connection listener: the wrapper that was
/// made last hears of clients. An earlier one hears of no change any more, and goes on broadcasting
/// or being silent as it was.
class TCP_COM_API TcpServerWrapper : public iRecieveListener {
 public:
  using ObjectHandler = std::function<Json::Value(const Json::Value& request)>;
  using ObjectHandlerMap = std::map<std::string, ObjectHandler>;
  using TextHandler = std::function<int(const std::string& request, std::string& reply)>;
  using TextHandlerMap = std::map<std::string, TextHandler>;

  /// @param port  -1: init() opens the port later
  explicit TcpServerWrapper(int port);

  /// Joins the broadcast thread, then destroys the server as ~TcpServer: without quit() both block
  /// until another thread calls it, on purpose, except at the end of the process, when no wait is
  /// longer than a second. Returns when no handler runs any more but the one that calls this;
  /// inside a callback it waits for nothing else.
  ~TcpServerWrapper() override;

  TcpServerWrapper(const TcpServerWrapper&) = delete;
  TcpServerWrapper& operator=(const TcpServerWrapper&) = delete;

  /// Sets limits and checks; to be called before init(), so the port is not for the constructor.
  /// @return false, with a log line and nothing changed, after the start, for a negative number,
  ///   and if allowedPeers cannot be read
  bool setSafetyOptions(const ServerSafetyOptions& options);

  /// Opens the port. Must not be called while the server runs: it is refused with a log line. After
  /// quit() the server stays stopped, on purpose.
  void init(int port);

  /// Adds the handlers whose names are new; an existing one, "heartbeat" among them, stays.
  /// @throws std::string  if text handlers are registered
  void setHandleMap(ObjectHandlerMap& handlers);

  /// Adds handlers that answer with plain text, without envelope.
  /// @throws std::string  always, on purpose: "heartbeat" is registered as an object handler
  void setHandleMap(TextHandlerMap& handlers);

  /// Replaces the broadcast function, whose value goes to all clients each `rateMs` milliseconds
  /// (plus the time that it takes) while any is connected. A second call waits, on purpose, until
  /// another thread calls quit() or destroys the server; from the broadcast function itself it
  /// takes over at once.
  void registerBroadcastFunc(std::function<Json::Value()> func, int rateMs);

  /// Sets the pause between two broadcasts in milliseconds, from the next one on.
  void setBroadcastRate(int rateMs);

  /// Queues a text, as it stands, for all clients: the caller ends it with CR LF.
  /// @return false if no client is connected; the text is then dropped
  bool sendMsgs(const std::string& msg);

  /// Stops the broadcasts and the accepting, then pauses 1 s. Clients stay connected until they
  /// send or leave.
  void quit();

  /// @return the port that the server listens on; 0 while it does not
  int listeningPort() const;

  /// Waits until the server listens.
  /// @return false when it cannot open its port, was stopped, or the time is over
  bool waitUntilListening(double timeoutMs) const;

  /// @name Steps of the threads
  /// @{
  /// Answers one message and queues the reply, in pieces of 1 MiB.
  void onReceive(const std::string& msg) override;
  /// @return the reply to one message
  /// @throws Json::LogicError  if a handler returns a value that is neither an object nor null
  std::string commandHandle(const std::string& msg);
  /// The broadcaster's connection listener.
  void tcpConnectionNotify(bool connected);
  /// Body of the broadcast thread.
  void broadcastAutomaticThreadFunc();
  /// @}

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the threads
};

}  // namespace brix
