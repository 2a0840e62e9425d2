#include "inbox.h"

#include "arm_messages.h"

namespace arm {

namespace {

double msBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace

void Inbox::onReceive(const std::string& msg) {
  const auto now = Clock::now();
  const Json::Value message = parseMessage(msg);
  std::lock_guard<std::mutex> lock(mutex_);
  lastHeard_ = now;
  news_ = true;
  if (message.isObject()) {
    if (message["broadcast"] == kStateBroadcast) {
      takeBroadcast(message, now);
    } else {
      takeReply(message, now);
    }
  }
  heard_.notify_all();
}

void Inbox::takeBroadcast(const Json::Value& message, Clock::time_point now) {
  const auto state = snapshotFromJson(message);
  if (!state || !message["seq"].isUInt64()) return;
  const std::uint64_t seq = message["seq"].asUInt64();
  if (lastBroadcast_) {
    broadcasts_.periodMs.add(msBetween(*lastBroadcast_, now));
    if (seq > lastSeq_ + 1) broadcasts_.missingBroadcasts += seq - lastSeq_ - 1;
  }
  ++broadcasts_.broadcasts;
  state_ = state;
  lastSeq_ = seq;
  lastBroadcast_ = now;
}

void Inbox::takeReply(const Json::Value& message, Clock::time_point now) {
  if (expectedId_.empty() || message["id"] != expectedId_) return;
  if (message["command"] != expectedCommand_ || !message["code"].isInt()) return;
  const std::string msg = message["msg"].isString() ? message["msg"].asString() : "";
  reply_ = Reply{message["code"].asInt(), msg, message, now};
}

void Inbox::expectReply(const std::string& command, const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  expectedCommand_ = command;
  expectedId_ = id;
  reply_.reset();
}

void Inbox::waitForNews(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  heard_.wait_for(lock, limit, [this] { return news_; });
  news_ = false;
}

std::optional<Reply> Inbox::reply() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reply_;
}

std::optional<Snapshot> Inbox::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

std::optional<Clock::time_point> Inbox::lastHeard() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastHeard_;
}

void Inbox::addTo(Report& report) const {
  std::lock_guard<std::mutex> lock(mutex_);
  report.broadcasts = broadcasts_.broadcasts;
  report.missingBroadcasts = broadcasts_.missingBroadcasts;
  report.periodMs = broadcasts_.periodMs;
}

}  // namespace arm
