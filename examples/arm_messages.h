/// @file
/// The JSON forms that controller and operator share.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

#include "arm_simulation.h"

namespace arm {

/// The request's name, which its reply repeats.
inline constexpr char kIdKey[] = "id";

/// The reason why a command is not carried out, in what its handler returns.
inline constexpr char kRefusedKey[] = "refused";

/// Value of the member "broadcast" that marks a periodic message.
inline constexpr char kStateBroadcast[] = "state";

/// @return the object's members "time_ms", "moving", "joints_deg", "speeds_deg_s", "target_deg"
Json::Value toJson(const Snapshot& snapshot);

/// Reads what toJson wrote; nothing if a member is missing or of another type.
std::optional<Snapshot> snapshotFromJson(const Json::Value& object);

/// @return six numbers, or nothing if the value is not an array of exactly six numbers
std::optional<JointVector> jointsFromJson(const Json::Value& value);

Json::Value jointsToJson(const JointVector& joints);

/// Parses a message that came over the network.
/// @return null for a text that is not JSON, and for one nested too deep
Json::Value parseMessage(const std::string& text);

}  // namespace arm
