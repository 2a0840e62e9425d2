// One connected socket that never blocks.
#pragma once

#include <cstddef>
#include <string>

#include "descriptor.h"

namespace tcpcom {

/// The end of the connection is a state, not an exception: what was received before it still
/// counts.
class Link {
 public:
  /// Takes a connected socket.
  explicit Link(Descriptor socket);

  int fd() const { return socket_.get(); }

  /// @return the events of poll(2) to wait for
  short wants() const;

  /// Appends to `bytes` what has come, at most `most` bytes.
  /// @return false when the connection has ended
  bool read(std::string& bytes, std::size_t most);

  /// Appends bytes to what is to be sent, and sends what can go at once.
  /// @return false when the connection has ended
  bool send(const std::string& bytes);

  /// Sends what can go at once.
  /// @return false when the connection has ended
  bool flush();

  /// Bytes that could not be sent yet.
  std::size_t waiting() const { return waiting_.size() - sent_; }

  /// Bytes that the peer's machine has not acknowledged yet; the end of the stream counts as one.
  int unacknowledged() const;

  /// Tells the peer that nothing more will come.
  void endSending() const;

  /// @return whether an error has ended the connection, and not the peer in order
  bool broken();

  /// Why the connection has ended.
  const std::string& endReason() const { return endReason_; }

 private:
  bool ended(const std::string& reason);
  bool failed(int error);

  Descriptor socket_;
  std::string waiting_;
  std::size_t sent_ = 0;  // of waiting_
  std::string endReason_;
  bool broken_ = false;
};

}  // namespace tcpcom
