#include "state_broadcast.h"

#include "arm_messages.h"

namespace arm {

Json::Value StateBroadcast::next() {
  Json::Value message = toJson(arm_.snapshot());
  message["broadcast"] = kStateBroadcast;
  message["seq"] = Json::UInt64(++seq_);
  return message;
}

}  // namespace arm
