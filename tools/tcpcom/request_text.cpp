#include "request_text.h"

#include "command_envelope.h"
#include "input.h"
#include "json_text.h"

namespace tcpcom {

namespace envelope = brix::envelope;

std::string membersText(const Run& run, const std::string& given) {
  if (given == "-") return readStandardInput(run);
  if (!given.empty() && given.front() == '@') return readFile(run, given.substr(1));
  return given.empty() ? "{}" : given;
}

// The user's text goes out as it was written: no number loses a digit.
std::string requestText(const std::string& command, const std::string& members) {
  std::string error;
  const auto value = parseJson(members, &error);
  if (!value) throw Failure(Status::Usage, "the request is not JSON: " + error);
  if (!value->isObject()) throw Failure(Status::Usage, "the request is no JSON object");
  if (value->isMember(envelope::kCommandKey)) {
    throw Failure(Status::Usage, "the request must not hold \"command\", which is given before it");
  }
  const auto object = exactLine(members);
  if (!object) throw Failure(Status::Usage, "the request is not JSON: a wrong number, or no UTF-8");
  const std::string rest = object->substr(object->find('{') + 1);
  return std::string("{\"") + envelope::kCommandKey + "\":" + compactJson(Json::Value(command)) +
         (value->empty() ? "" : ",") + rest;
}

}  // namespace tcpcom
