#include "exchange.h"

#include "command_envelope.h"
#include "json_text.h"

namespace tcpcom {
namespace {

namespace envelope = brix::envelope;

constexpr double kDrainS = 0.1;  // a peer that never pauses must not keep the request back

/// @return the text of the member "command"; nothing if there is none
std::optional<std::string> commandOf(const Json::Value& value) {
  if (!value.isObject()) return std::nullopt;
  const Json::Value& command = value[envelope::kCommandKey];
  return command.isString() ? std::optional(command.asString()) : std::nullopt;
}

enum class Whose { Ours, AnybodysRejection, Others };

Whose whose(const Json::Value& reply, const std::string& command, const Json::Value& mustHold) {
  const auto name = commandOf(reply);
  if (name == envelope::kUnknownCommand && name != command) return Whose::AnybodysRejection;
  if (name != command) return Whose::Others;
  for (const std::string& key : mustHold.getMemberNames()) {
    // Servers reject without what they take over into replies.
    if (!reply.isMember(key)) return isHandled(reply) ? Whose::Others : Whose::AnybodysRejection;
    if (plainText(reply[key]) != plainText(mustHold[key])) return Whose::Others;
  }
  return Whose::Ours;
}

}  // namespace

bool isHandled(const Json::Value& reply) {
  const Json::Value& code = reply[envelope::kCodeKey];
  return code.isNull() || (code.isInt() && code.asInt() == envelope::kCodeHandled);
}

std::string heartbeatText() {
  return compactJson(envelope::heartbeatRequest());
}

Wake Exchange::receive(TimePoint until, TimePoint latest) {
  Message message;
  Wake wake = Wake::Ready;
  while ((wake = session_.next(message, until)) == Wake::Ready) {
    if (onOther_) onOther_(message);
    if (Clock::now() >= latest) return Wake::TimedOut;
  }
  return wake;
}

Wake Exchange::ask(const std::string& command, const std::string& request, TimePoint until,
                   Reply& reply, const Json::Value& mustHold, std::optional<Reply>* rejection) {
  const TimePoint now = Clock::now();
  if (const Wake wake = receive(now, after(kDrainS, now)); wake != Wake::TimedOut) return wake;
  const TimePoint sent = Clock::now();
  session_.send(request);
  Message message;
  Wake wake = Wake::Ready;
  while ((wake = session_.next(message, until)) == Wake::Ready) {
    const Json::Value value = parseJson(message.text).value_or(Json::Value());
    const Whose owner = whose(value, command, mustHold);
    Reply one{message.text, value, secondsBetween(sent, message.at) * 1000};
    if (owner == Whose::Ours) {
      reply = std::move(one);
      return wake;
    }
    if (owner == Whose::AnybodysRejection && rejection != nullptr) {
      *rejection = std::move(one);
    } else if (onOther_) {
      onOther_(message);
    }
  }
  return wake;
}

}  // namespace tcpcom
