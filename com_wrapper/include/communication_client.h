/// @file
/// The client that applications use.
#pragma once

#include <json/json.h>

#include <functional>
#include <memory>
#include <string>

#include "basic_client_interface.h"
#include "delivery_mode.h"
#include "recieve_listener.h"
#include "safety_options.h"
#include "tcp_com_export.h"
#include "thread_unit.h"

namespace brix {

/// Sends requests and receives replies and broadcasts over a transport that the application hands
/// in. Messages are delivered as texts; they are not parsed.
///
/// Use: setClientHandle, listeners and modes, connect; disConnect, connect again, destruction.
///
/// Called from: any thread. Calls back on
/// - the broadcast thread, under the listener lock: listeners and message callbacks; in direct
///   delivery (see DeliveryMode) the unit's thread "com_client", under the same lock;
/// - the thread that connects (true) or disconnects (false; the unit's thread "com_client" when the
///   link has gone silent): the connection listener.
/// A callback may send, connect, disconnect, set modes and destroy the client: there these only ask
/// the client's threads to end and do not wait for them. `connect` and `disConnect` inside a
/// callback give way when another thread is doing the same; a callback must not wait for such a
/// thread. Changing the listeners from inside a listener blocks that listener until the client
/// disconnects, on purpose, with a log line. What a callback throws is logged, and the delivery
/// goes on.
class TCP_COM_API CommunicationClient : public ThreadUnit {
 public:
  CommunicationClient();

  /// Disconnects and waits for the threads. Inside a callback it does not wait.
  ~CommunicationClient();

  CommunicationClient(const CommunicationClient&) = delete;
  CommunicationClient& operator=(const CommunicationClient&) = delete;

  /// Sets the transport; must come before `connect`. A connection keeps the one that it was made
  /// with.
  void setClientHandle(std::shared_ptr<BasicClientInterface> handle);

  /// Sets limits and checks, those of the transport among them; the next connection has them.
  void setSafetyOptions(const ClientSafetyOptions& options);

  /// Sets how messages are handed over, and which thread calls the listeners; the next connection
  /// has it. Default: Polled.
  void setDeliveryMode(DeliveryMode mode);

  /// Turns progress lines and most failure lines on or off, the transport's among them.
  void setPrintFlag(bool print);

  /// Sets the sending thread's pause in milliseconds; default 0.5. At 0 it waits for texts, and
  /// those that wait together may leave with one system call. To 0 and from 0 it takes effect at
  /// once.
  void setSendRate(double rate);

  /// Sets the pause of receiving and delivery in milliseconds; default 0.5. At 0 there is none. To
  /// 0 and from 0 it takes effect at once.
  void setRecvRate(double rate);

  /// True (default): texts are queued, framed and sent by a thread. False: they are sent at once,
  /// as they stand, without a delimiter, on purpose. Turning it off ends the sending thread.
  void setSendMode(bool queued);

  /// True (default): messages are received and delivered. Turning it off stops all reading. Turning
  /// a mode on takes effect at the next connect.
  void setBroadcastMode(bool receiving);

  /// True (default): a heartbeat every 2.5 s, warnings for each second of silence, and a disconnect
  /// after 3 s without a message.
  void setHeartbeatMode(bool beating);

  /// Appends a listener, which is not owned; duplicates and null are accepted.
  void attachListener(iRecieveListener* listener);

  /// Removes the first entry equal to `listener`, if any. On return it is not being called.
  void releaseListener(iRecieveListener* listener);

  /// Appends a message callback; there is no removal.
  void registerMsgListener(std::function<void(const std::string&)> listener);

  /// Replaces the connection listener.
  void registerConnectionListener(std::function<void(bool)> listener);

  /// Connects and starts the threads.
  /// @param ip, port  only logged, on purpose: the transport holds its address
  /// @param timeout  passed to the transport
  /// @return 1 when connected, also when it was already; -1 without a transport, when a thread
  ///   could not be started or something threw; otherwise the transport's result
  int connect(const std::string& ip, int port, double timeout);

  /// @return whether the client is connected
  bool isConnected();

  /// Disconnects and drops what was queued. An unfinished message stays and is continued by the
  /// next connection, on purpose. Returns within 100 ms plus what a running callback takes.
  void disConnect();

  /// @return 1 when queued or handed to the transport, -1 when not connected, 0 after an exception
  int sendMsg(const std::string& msg);

  /// Hands bytes to the transport at once, whatever the send mode; nothing is appended.
  /// @return as above
  int sendMsg(const char* data, int len);

  /// Sends a JSON value as compact text.
  /// @return as above
  int sendRequest(const Json::Value& request);

  /// @name Thread bodies
  /// @{
  void threadCycle() final;
  void broadcastDataFunc();
  void sendRequestFunc();
  void sendHeartbeatFunc();
  /// @}

  class State;

 private:
  std::shared_ptr<State> state_;  // shared with the threads
};

}  // namespace brix
