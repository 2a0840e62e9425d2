#include "command_handler.h"

#include "arm_messages.h"
#include "brix_json.h"

namespace arm {

namespace {

Json::Value rejection(const char* msg) {
  Json::Value reply(Json::objectValue);
  reply["code"] = kCodeRejected;
  reply["msg"] = msg;
  return reply;
}

void checkId(const Json::Value& request) {
  if (!request.isMember("id")) return;
  const Json::Value& id = request["id"];
  if (!id.isString() && !id.isIntegral()) throw Refused("id must be a string or an integer");
}

}  // namespace

CommandHandler::CommandHandler(ArmSimulation& arm)
    : arm_(arm),
      handlers_{
          {"heartbeat", [](const Json::Value&) { return Json::Value(Json::objectValue); }},
          {"get_state", [this](const Json::Value&) { return getState(); }},
          {"move_joints", [this](const Json::Value& request) { return moveJoints(request); }},
          {"stop", [this](const Json::Value&) { return stop(); }},
      } {}

std::string CommandHandler::answer(const std::string& request) {
  const Json::Value parsed = parseMessage(request);
  Json::Value result;
  try {
    result = reply(parsed);
  } catch (const Json::Exception&) {  // a "command" that has no text form
    result = rejection(kMsgParseError);
    result["command"] = kUnknownEcho;
  }
  return brix_json::toStrWithoutIndentation(result, brix_json::kPrecision);
}

Json::Value CommandHandler::reply(const Json::Value& request) {
  if (request.isNull()) return rejection(kMsgParseError);
  if (!request.isObject()) throw Json::LogicError("the request is not an object");
  if (!request.isMember("command")) return rejection(kMsgParseError);

  const std::string command = request["command"].asString();
  Json::Value result;
  try {
    checkId(request);
    result = handle(command, request);
  } catch (const Refused& refused) {
    result = rejection(refused.what());
  }
  result["command"] = command;
  if (request.isMember("id")) result["id"] = request["id"];
  return result;
}

Json::Value CommandHandler::handle(const std::string& command, const Json::Value& request) {
  const auto entry = handlers_.find(command);
  if (entry == handlers_.end()) return rejection(kMsgNoHandler);
  Json::Value result = entry->second(request);
  result["code"] = kCodeHandled;
  result["msg"] = kMsgReceived;
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

std::string CommandHandler::stateBroadcast() {
  Json::Value message = toJson(arm_.snapshot());
  message["broadcast"] = kStateBroadcast;
  message["seq"] = Json::UInt64(++broadcasts_);
  return brix_json::toStrWithoutIndentation(message, brix_json::kPrecision);
}

}  // namespace arm
