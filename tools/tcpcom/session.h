// A client's conversation with one peer: connecting, framing, deadlines.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "address.h"
#include "link.h"
#include "message_splitter.h"
#include "run.h"

namespace tcpcom {

struct Message {
  std::string text;
  TimePoint at;  ///< when it was read
};

/// Plain sockets and not the library's TcpClient, whose connect waits one second whatever it is
/// told, and which tells neither why it failed nor an end from an error: the exit statuses promise
/// both.
class Session {
 public:
  /// Connects, within the connect time-out, again as often as the settings say.
  /// @throws Failure  with NoConnection, or as the run ends
  Session(const Run& run, const Address& peer);

  const std::string& name() const { return name_; }

  /// Sends one message, framed; returns when the kernel has it.
  /// @throws Failure  with LinkLost, with TimedOut if the peer does not read, or as the run ends
  void send(const std::string& text);

  /// Waits for a message.
  /// @throws Failure  with LinkLost when the connection has ended and nothing is left
  Wake next(Message& message, TimePoint until);

  /// Waits until something has come from the peer, or `fd` can be read; messages then wait for
  /// next(). After the link's end only `fd` is waited for.
  Wake awaitOr(int fd, bool& readable, TimePoint until);

  /// Drops what has come; for those who only send.
  void dropReceived() { inbox_.clear(); }

  /// @throws Failure  with LinkLost when the connection has ended
  void checkLink() const;

  /// Keeps the link for a while, because some servers drop what they have not handled yet when a
  /// client leaves; then ends the sending, and waits until the peer's machine has all of it.
  /// @throws Failure  with LinkLost or TimedOut if that cannot be told, or as the run ends
  void finishSending(double lingerS);

 private:
  void connect(const Address& peer);
  std::optional<std::string> tryConnect(const Address& peer);
  Descriptor connectTo(const SocketAddress& address, TimePoint until, std::string& error) const;
  void pump(short revents);
  void linger(TimePoint until);
  [[noreturn]] void failLost() const;

  const Run& run_;
  std::string name_;
  std::optional<Link> link_;
  bool open_ = true;
  brix::MessageSplitter splitter_;
  std::deque<Message> inbox_;
};

}  // namespace tcpcom
