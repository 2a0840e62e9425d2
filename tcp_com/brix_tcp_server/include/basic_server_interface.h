/// @file
/// What a communication server asks of its transport.
#pragma once

#include <functional>
#include <string>

#include "tcp_com_export.h"

namespace brix {

/// A server transport: any number of clients, whole messages.
class TCP_COM_API BasicServerInterface {
 public:
  BasicServerInterface();
  virtual ~BasicServerInterface();

  /// Starts serving.
  virtual int initialize(int port) = 0;

  /// Stops serving.
  virtual void terminateServer() = 0;

  /// Replaces the listener of connections: told true for each client that arrives, false when none
  /// is left.
  virtual void registerConnectionListener(std::function<void(bool)> listener) = 0;

  /// Replaces the listener of received messages.
  virtual void registerMsgListener(std::function<void(const std::string&)> listener) = 0;

  /// Sends one message to every client.
  virtual void sendMsg(const std::string& msg) = 0;

  /// Sets the pause between two sends, in milliseconds.
  virtual void setSendRate(double rate);

  /// Sets the pause between two deliveries of received messages, in milliseconds.
  virtual void setRecvRate(double rate);

  /// @return whether all threads have ended; true in the base
  virtual bool releaseAble();

  std::string delimiter;  ///< ends a message
  double sendRate;        ///< milliseconds; written by setSendRate
  double recvRate;        ///< milliseconds; written by setRecvRate
};

}  // namespace brix
