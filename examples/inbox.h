/// @file
/// What the operator hears from the controller.
#pragma once

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "arm_simulation.h"
#include "recieve_listener.h"
#include "stats.h"

namespace arm {

using Clock = std::chrono::steady_clock;

/// A reply and when it came. A refused command shows alike in both families: code -2, and the
/// reason as msg.
struct Reply {
  int code = 0;
  std::string msg;
  Json::Value body;
  Clock::time_point at;
};

/// Sorts the controller's messages: keeps the latest state and the one reply that is waited for.
/// Replies to other clients and to heartbeats that nobody asked for are dropped.
///
/// Called from: the link's thread (`onReceive`, which only stores) and one thread that
/// waits (all else).
class Inbox : public brix::iRecieveListener {
 public:
  void onReceive(const std::string& msg) override;

  /// Drops an earlier reply; from now on the one to this command with this id is kept, or one that
  /// answers anybody: to a heartbeat, or to a command that the controller does not know, the
  /// command server replies without an id.
  void expectReply(const std::string& command, const std::string& id);

  /// Waits until a message has come since the last call, at most `limit`.
  void waitForNews(std::chrono::milliseconds limit);

  /// @return the reply that is expected, if it has come
  std::optional<Reply> reply() const;

  /// @return the latest state, if any has come
  std::optional<Snapshot> state() const;

  /// @return when the last message came, if any has come
  std::optional<Clock::time_point> lastHeard() const;

  /// @return the broadcasts up to now
  BroadcastCount broadcasts() const;

  /// Adds what was heard of broadcasts.
  void addTo(Report& report) const;

 private:
  void takeBroadcast(const Json::Value& message, Clock::time_point now);
  void takeReply(const Json::Value& message, Clock::time_point now);

  mutable std::mutex mutex_;  // guards all that follows
  std::condition_variable heard_;
  bool news_ = false;
  std::optional<Clock::time_point> lastHeard_;

  std::optional<Snapshot> state_;
  std::optional<Clock::time_point> lastBroadcast_;
  BroadcastCount broadcasts_;
  Samples periodMs_;

  std::string expectedCommand_;
  std::string expectedId_;
  std::optional<Reply> reply_;
};

}  // namespace arm
