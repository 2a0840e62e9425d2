#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "drop_report.h"
#include "socket_owner.h"

namespace brix {

/// A text that is to go to several clients. Those who cannot take it at once keep one copy of it
/// among them.
class SharedText {
 public:
  explicit SharedText(const std::string& text) : text_(text) {}

  const std::string& text() const { return text_; }
  const std::shared_ptr<const std::string>& copy() {
    if (!copy_) copy_ = std::make_shared<const std::string>(text_);
    return copy_;
  }

 private:
  const std::string& text_;
  std::shared_ptr<const std::string> copy_;
};

/// What one client did not take at once, in order. A text whose beginning has been sent stays until
/// its end has.
class SendBacklog {
 public:
  /// @param limitBytes  above which the oldest texts are dropped; 0: none
  /// @param timeoutMs  after which a client that takes nothing is given up; 0: none
  void configure(std::size_t limitBytes, int timeoutMs);

  /// @param sent  bytes of the text that have gone already
  void add(std::shared_ptr<const std::string> text, std::size_t sent, DropReport& dropped);

  bool empty() const { return texts_.empty(); }

  /// Sends what the socket takes without blocking. What is for a connection that is lost, or given
  /// up here, is dropped.
  /// @return whether anything went
  bool flush(SocketOwner& socket);

 private:
  using Clock = std::chrono::steady_clock;

  std::string_view nextChunk();
  void consume(std::size_t bytes);
  void clear();

  std::deque<std::shared_ptr<const std::string>> texts_;
  std::size_t sentOfFirst_ = 0;
  std::size_t bytes_ = 0;
  std::size_t limitBytes_ = 0;
  int timeoutMs_ = 0;
  Clock::time_point lastProgress_;
  std::string chunk_;
};

}  // namespace brix
