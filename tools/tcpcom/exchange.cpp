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

}  // namespace

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
                   Reply& reply, std::optional<Reply>* rejection) {
  const TimePoint now = Clock::now();
  if (const Wake wake = receive(now, after(kDrainS, now)); wake != Wake::TimedOut) return wake;
  const TimePoint sent = Clock::now();
  session_.send(request);
  Message message;
  Wake wake = Wake::Ready;
  while ((wake = session_.next(message, until)) == Wake::Ready) {
    const auto value = parseJson(message.text);
    const auto name = value ? commandOf(*value) : std::nullopt;
    Reply one{message.text, value.value_or(Json::Value()), secondsBetween(sent, message.at) * 1000};
    if (name == command) {
      reply = std::move(one);
      return wake;
    }
    if (name == envelope::kUnknownCommand && rejection != nullptr) {
      *rejection = std::move(one);
    } else if (onOther_) {
      onOther_(message);
    }
  }
  return wake;
}

}  // namespace tcpcom
