/// @file
/// What a communication client asks of its transport.
#pragma once

#include <cstddef>
#include <string>

#include "safety_options.h"
#include "tcp_com_export.h"

namespace brix {

/// A client transport: one connection to one server, raw bytes.
class TCP_COM_API BasicClientInterface {
 public:
  BasicClientInterface();
  virtual ~BasicClientInterface();

  /// @param timeout  seconds; a transport may have a wait of its own
  /// @return 1 when connected, anything else is a failure
  virtual int connectServer(double timeout) = 0;

  /// Sends a text as it stands, without adding a delimiter.
  virtual void sendMsg(const std::string& msg) = 0;

  /// Sends bytes as they stand. Does nothing in the base.
  virtual void sendMsg(const char* data, int len);

  /// Ends the connection. A read that blocks on another thread returns.
  virtual void closeClient() = 0;

  /// Waits for bytes.
  /// @return one chunk of the stream, or an empty text at its end, on an error or when not
  /// connected
  virtual std::string recieveMsg() = 0;

  /// Waits for at most `len` bytes.
  /// @return bytes read, 0 at the stream's end or when not connected, -1 on an error; 0 in the base
  virtual int recieveMsg(char* buf, int len);

  /// Waits until a read would not block, at most `ms` milliseconds.
  /// @return false if the time passed; true in the base, whose reads may then block
  virtual bool waitReadable(double ms);

  /// Sets limits and checks, before connecting. Does nothing in the base.
  virtual void setSafetyOptions(const ClientSafetyOptions& options);

  /// Waits for bytes about `ms` milliseconds, or until wakeReader(). In the base with
  /// waitReadable() and recieveMsg(), 50 ms at most. A transport whose recieveMsg() returns an
  /// empty text for "nothing yet" must override this: in the base that is the end.
  /// @param ms  milliseconds
  /// @param chunk  gets a chunk of the stream; empty if none came
  /// @return false if none will come any more: the stream has ended, failed, or never began
  virtual bool recieveMsgWithin(double ms, std::string& chunk);

  /// Ends the recieveMsgWithin() that runs or comes next, within 50 ms. Does nothing in the base,
  /// which waits no longer than that.
  virtual void wakeReader();

  /// Sends as many bytes as go without blocking.
  /// @return how many of them are done with; 0 in the base
  virtual std::size_t sendAtOnce(const char* data, std::size_t size);

  /// @return whether texts may be joined before they are sent; false in the base
  virtual bool joinsTexts() const;

  std::string delimiter;  ///< ends a message; set it before connecting
  bool logFlag;           ///< whether progress and failures are logged
};

}  // namespace brix
