#include "player.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <random>
#include <sstream>

#include "arm_messages.h"
#include "command_envelope.h"

namespace arm {

namespace envelope = brix::envelope;

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds kPoll = 20ms;  // how late a signal may be seen
constexpr milliseconds kReplyLimit = 2000ms;
constexpr milliseconds kHaltLimit = 500ms;
constexpr milliseconds kSilenceLimit = 1500ms;  // of broadcasts; their period is far shorter
constexpr double kPoseToleranceDeg = 0.05;
constexpr double kMarginS = 3.0;  // on top of a motion's planned time
constexpr double kLongestMotionS = 3600.0;

std::string newSessionName() {
  std::ostringstream name;
  name << std::hex << std::setfill('0') << std::setw(8) << std::random_device()();
  return name.str();
}

std::string seconds(Clock::duration duration) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(2) << std::chrono::duration<double>(duration).count();
  return text.str() + " s";
}

/// @return what keeps the arm from standing at the pose; empty if it does
std::string deviation(const Snapshot& state, const JointVector& poseDeg) {
  for (std::size_t i = 0; i < kJointCount; ++i) {
    const double joint = state.arm.jointsDeg[i];
    if (std::abs(joint - poseDeg[i]) <= kPoseToleranceDeg) continue;
    std::ostringstream text;
    text << "joint " << i + 1 << " stands at " << joint << " instead of " << poseDeg[i] << " deg";
    return text.str();
  }
  return "";
}

}  // namespace

Player::Player(Link& link, Inbox& inbox, const SignalWatch& signals)
    : link_(link),
      inbox_(inbox),
      signals_(signals),
      startedAt_(Clock::now()),
      session_(newSessionName()) {}

void Player::play(const std::vector<ProgramStep>& steps, Progress& progress) {
  awaitFirstState();
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::string place = "line " + std::to_string(steps[i].line) + ", " + steps[i].command;
    progress.begin(i + 1, place);
    try {
      progress.end(playStep(steps[i]));
    } catch (const PlayError& error) {
      throw PlayError(place + ": " + error.what());
    }
  }
  awaitGoal();
}

std::string Player::playStep(const ProgramStep& step) {
  waitUntil([] { return false; }, milliseconds(step.pauseMs));
  const auto sentAt = Clock::now();
  const bool wasUnderWay = underWay_;
  if (step.targetDeg) underWay_ = true;  // until we know better, also if no reply comes
  const Reply reply = ask(step.request, kReplyLimit);
  if (reply.code != envelope::kCodeHandled) underWay_ = wasUnderWay;
  checkReply(step, reply);
  std::string result = "code " + std::to_string(reply.code) + ", " + reply.msg;
  if (reply.code != envelope::kCodeHandled) return result;
  if (step.command != "move_joints" && step.command != "stop") return result;

  setGoal(step.targetDeg, reply);
  if (!step.waitForArrival) return result + ", under way";
  awaitGoal();
  return result + ", at rest after " + seconds(Clock::now() - sentAt);
}

Reply Player::ask(const Json::Value& request, milliseconds limit) {
  Json::Value message = request;
  const std::string id = session_ + "-" + std::to_string(report_.requests + 1);
  message[kIdKey] = id;
  inbox_.expectReply(request[envelope::kCommandKey].asString(), id);
  const auto sentAt = Clock::now();
  if (!link_.send(message)) throw PlayError("connection lost: nothing can be sent");
  ++report_.requests;
  if (!waitUntil([this] { return inbox_.reply().has_value(); }, limit)) {
    throw PlayError("no reply within " + seconds(limit));
  }
  Reply reply = *inbox_.reply();
  ++report_.replies;
  report_.latencyMs.add(std::chrono::duration<double, std::milli>(reply.at - sentAt).count());
  return reply;
}

void Player::checkReply(const ProgramStep& step, const Reply& reply) {
  const bool rightMsg = !step.expectedMsg || reply.msg == *step.expectedMsg;
  if (reply.code == step.expectedCode && rightMsg) return;
  ++report_.wrongReplies;
  std::string expected = "code " + std::to_string(step.expectedCode);
  if (step.expectedMsg) expected += " (" + *step.expectedMsg + ")";
  throw PlayError("answered with code " + std::to_string(reply.code) + " (" + reply.msg +
                  ") instead of " + expected);
}

void Player::setGoal(const std::optional<JointVector>& poseDeg, const Reply& reply) {
  const Json::Value& sinceMs = reply.body["time_ms"];
  const Json::Value durationS = reply.body.get("duration_s", 0.0);
  if (!sinceMs.isUInt64() || !durationS.isNumeric()) {
    throw PlayError("the reply does not tell the motion's time");
  }
  const double plannedS = std::min(durationS.asDouble(), kLongestMotionS);
  goal_ = Goal{poseDeg, sinceMs.asUInt64(), kMarginS + 1.5 * plannedS};
}

void Player::awaitFirstState() {
  if (waitUntil([this] { return inbox_.state().has_value(); }, kReplyLimit)) return;
  throw PlayError("no state received: this is not an arm controller");
}

// A state that was sent before the request took effect may still be under way; its time tells.
void Player::awaitGoal() {
  if (!goal_) return;
  const auto atRest = [this] {
    const auto state = inbox_.state();
    return state && state->timeMs > goal_->sinceMs && !state->arm.moving;
  };
  const auto limit = std::chrono::duration<double>(goal_->limitS);
  if (!waitUntil(atRest, std::chrono::duration_cast<milliseconds>(limit))) {
    throw PlayError("the arm still moves after " +
                    seconds(std::chrono::duration_cast<Clock::duration>(limit)));
  }
  underWay_ = false;
  if (!goal_->poseDeg) return;
  const std::string problem = deviation(*inbox_.state(), *goal_->poseDeg);
  if (!problem.empty()) throw PlayError("the arm came to rest elsewhere: " + problem);
}

void Player::checkEnd() const {
  if (const int signal = signals_.poll()) throw Interrupted{signal};
  const auto heard = inbox_.lastHeard();
  const bool silent =
      Clock::now() - std::max(startedAt_, heard.value_or(startedAt_)) > kSilenceLimit;
  if (link_.isConnected() && !silent) return;
  if (!heard) throw PlayError("nothing received: no arm controller answers there");
  throw PlayError("connection lost: nothing received any more");
}

template <typename Predicate>
bool Player::waitUntil(Predicate done, milliseconds limit) const {
  const auto deadline = Clock::now() + limit;
  while (!done()) {
    checkEnd();
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    if (left <= 0ms) return false;
    inbox_.waitForNews(std::min(kPoll, left));
  }
  return true;
}

void Player::haltArm() {
  if (!underWay_ || !link_.isConnected()) return;
  Json::Value request(Json::objectValue);
  request[envelope::kCommandKey] = "stop";
  try {
    const Reply reply = ask(request, kHaltLimit);
    setGoal(std::nullopt, reply);
    awaitGoal();
  } catch (const PlayError&) {
    // The link is gone, and with it the way to stop the arm; the first failure is reported.
  } catch (const Interrupted&) {
    // Asked to end once more: do not wait any longer.
  }
}

Report Player::report() const {
  Report report = report_;
  inbox_.addTo(report);
  return report;
}

}  // namespace arm
