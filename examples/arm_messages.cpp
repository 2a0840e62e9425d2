#include "arm_messages.h"

#include "brix_json.h"

namespace arm {

Json::Value jointsToJson(const JointVector& joints) {
  Json::Value array(Json::arrayValue);
  for (const double joint : joints) array.append(joint);
  return array;
}

std::optional<JointVector> jointsFromJson(const Json::Value& value) {
  if (!value.isArray() || value.size() != kJointCount) return std::nullopt;
  JointVector joints{};
  for (Json::ArrayIndex i = 0; i < kJointCount; ++i) {
    if (!value[i].isNumeric()) return std::nullopt;
    joints[i] = value[i].asDouble();
  }
  return joints;
}

// Time is an integer: as a floating-point number it would be rounded to six digits on its way.
Json::Value toJson(const Snapshot& snapshot) {
  Json::Value object(Json::objectValue);
  object["time_ms"] = Json::UInt64(snapshot.timeMs);
  object["moving"] = snapshot.arm.moving;
  object["joints_deg"] = jointsToJson(snapshot.arm.jointsDeg);
  object["speeds_deg_s"] = jointsToJson(snapshot.arm.speedsDegS);
  object["target_deg"] = jointsToJson(snapshot.arm.targetDeg);
  return object;
}

std::optional<Snapshot> snapshotFromJson(const Json::Value& object) {
  if (!object.isObject()) return std::nullopt;
  const auto joints = jointsFromJson(object["joints_deg"]);
  const auto speeds = jointsFromJson(object["speeds_deg_s"]);
  const auto target = jointsFromJson(object["target_deg"]);
  if (!joints || !speeds || !target) return std::nullopt;
  if (!object["time_ms"].isUInt64() || !object["moving"].isBool()) return std::nullopt;
  return Snapshot{object["time_ms"].asUInt64(),
                  ArmState{*joints, *speeds, *target, object["moving"].asBool()}};
}

Json::Value parseMessage(const std::string& text) {
  try {
    return brix_json::parseStr(text);
  } catch (const Json::Exception&) {
    return Json::Value();
  }
}

}  // namespace arm
