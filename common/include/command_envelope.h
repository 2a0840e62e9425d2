/// @file
/// The JSON envelope of the command protocol: its keys, codes and texts, for both sides.
#pragma once

#include <json/json.h>

namespace brix::envelope {

inline constexpr char kCommandKey[] = "command";
inline constexpr char kCodeKey[] = "code";
inline constexpr char kMsgKey[] = "msg";

inline constexpr int kCodeHandled = 1;
inline constexpr int kCodeRejected = -2;

// Clients compare these texts letter for letter: the spelling is fixed.
inline constexpr char kMsgHandled[] = "command recieved";
inline constexpr char kMsgParseError[] = "command parse error";
inline constexpr char kMsgNoHandler[] = "cannot found command handle";
inline constexpr char kUnknownCommand[] = "unknow";  ///< echo after a failure while handling

inline constexpr char kHeartbeatCommand[] = "heartbeat";
inline constexpr char kMsgHeartbeat[] = "cmd_recieve";  ///< of the handler; never on the wire

/// @return {"command":"heartbeat"}
inline Json::Value heartbeatRequest() {
  Json::Value request(Json::objectValue);
  request[kCommandKey] = kHeartbeatCommand;
  return request;
}

/// Turns what a handler returned into the reply of a handled command; members of these names are
/// overwritten, on purpose.
/// @throws Json::LogicError  if it is not an object
inline void markHandled(Json::Value& reply) {
  reply[kCodeKey] = kCodeHandled;
  reply[kMsgKey] = kMsgHandled;
}

/// Turns what is built of a reply into a rejection.
/// @throws Json::LogicError  if it is neither an object nor null
inline void markRejected(Json::Value& reply, const char* msg) {
  reply[kCodeKey] = kCodeRejected;
  reply[kMsgKey] = msg;
}

}  // namespace brix::envelope
