#include "command_handler.h"

#include "arm_messages.h"
#include "brix_json.h"
#include "command_envelope.h"

namespace arm {

namespace envelope = brix::envelope;

namespace {

void checkId(const Json::Value& request) {
  if (!request.isMember(kIdKey)) return;
  const Json::Value& id = request[kIdKey];
  if (!id.isString() && !id.isIntegral()) throw Refused("id must be a string or an integer");
}

// Without these nobody could tell whose reply it is.
void echo(const Json::Value& request, Json::Value& reply) {
  reply[envelope::kCommandKey] = request[envelope::kCommandKey].asString();
  if (request.isMember(kIdKey)) reply[kIdKey] = request[kIdKey];
}

}  // namespace

CommandHandler::CommandHandler(ArmSimulation& arm) : arm_(arm) {
  add(envelope::kHeartbeatCommand,
      [](const Json::Value&) { return Json::Value(Json::objectValue); });
  add("get_state", [this](const Json::Value&) { return getState(); });
  add("move_joints", [this](const Json::Value& request) { return moveJoints(request); });
  add("stop", [this](const Json::Value&) { return stop(); });
}

void CommandHandler::add(const std::string& command, const Handler& carryOut) {
  handlers_[command] = [carryOut](const Json::Value& request) {
    Json::Value result(Json::objectValue);
    try {
      checkId(request);
      result = carryOut(request);
    } catch (const Refused& refused) {
      result[kRefusedKey] = refused.what();
    }
    echo(request, result);
    return result;
  };
}

std::string CommandHandler::answer(const std::string& request) const {
  Json::Value result;
  try {
    result = reply(parseMessage(request));
  } catch (const Json::Exception&) {  // not an object, or a "command" that has no text form
    result[envelope::kCommandKey] = envelope::kUnknownCommand;
    envelope::markRejected(result, envelope::kMsgParseError);
  }
  return brix_json::toStrWithoutIndentation(result, brix_json::kPrecision);
}

Json::Value CommandHandler::reply(const Json::Value& request) const {
  Json::Value result(Json::objectValue);
  if (request.isNull() || !request.isMember(envelope::kCommandKey)) {
    envelope::markRejected(result, envelope::kMsgParseError);
    return result;
  }
  const auto handler = handlers_.find(request[envelope::kCommandKey].asString());
  if (handler == handlers_.end()) {
    echo(request, result);
    envelope::markRejected(result, envelope::kMsgNoHandler);
    return result;
  }
  result = handler->second(request);
  Json::Value reason;
  if (result.removeMember(kRefusedKey, &reason)) {
    envelope::markRejected(result, reason.asCString());
  } else {
    envelope::markHandled(result);
  }
  return result;
}

Json::Value CommandHandler::moveJoints(const Json::Value& request) {
  const auto target = jointsFromJson(request["joints_deg"]);
  if (!target) throw Refused("joints_deg must be an array of 6 numbers");
  const Json::Value scale = request.get("speed_scale", 1.0);
  if (!scale.isNumeric()) throw Refused("speed_scale must be a number");

  const ArmSimulation::Accepted accepted = arm_.moveTo(*target, scale.asDouble());
  Json::Value result(Json::objectValue);
  result["time_ms"] = Json::UInt64(accepted.timeMs);
  result["duration_s"] = accepted.durationS;
  return result;
}

Json::Value CommandHandler::stop() {
  Json::Value result(Json::objectValue);
  result["time_ms"] = Json::UInt64(arm_.stop());
  return result;
}

Json::Value CommandHandler::getState() {
  Json::Value result(Json::objectValue);
  result["state"] = toJson(arm_.snapshot());
  return result;
}

}  // namespace arm
