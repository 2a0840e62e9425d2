#include "inbox.h"

#include "arm_messages.h"
#include "command_envelope.h"

namespace arm {

namespace envelope = brix::envelope;

namespace {

double msBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

// Says the same to every client that asked, so it does not matter whose reply it is.
bool answersAnybody(const Json::Value& reply) {
  if (reply.isMember(kIdKey)) return false;
  return reply[envelope::kCommandKey] == envelope::kHeartbeatCommand ||
         reply[envelope::kMsgKey] == envelope::kMsgNoHandler;
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
    periodMs_.add(msBetween(*lastBroadcast_, now));
    if (seq > broadcasts_.last + 1) broadcasts_.missing += seq - broadcasts_.last - 1;
  } else {
    broadcasts_.first = seq;
  }
  ++broadcasts_.received;
  broadcasts_.last = seq;
  state_ = state;
  lastBroadcast_ = now;
}

void Inbox::takeReply(const Json::Value& message, Clock::time_point now) {
  const Json::Value& code = message[envelope::kCodeKey];
  if (reply_ || message[envelope::kCommandKey] != expectedCommand_ || !code.isInt()) return;
  if (message[kIdKey] != expectedId_ && !answersAnybody(message)) return;
  const Json::Value& refused = message[kRefusedKey];
  const Json::Value& msg = refused.isString() ? refused : message[envelope::kMsgKey];
  reply_ = Reply{refused.isString() ? envelope::kCodeRejected : code.asInt(),
                 msg.isString() ? msg.asString() : "", message, now};
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

BroadcastCount Inbox::broadcasts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return broadcasts_;
}

void Inbox::addTo(Report& report) const {
  std::lock_guard<std::mutex> lock(mutex_);
  report.broadcasts = broadcasts_;
  report.periodMs = periodMs_;
}

}  // namespace arm
