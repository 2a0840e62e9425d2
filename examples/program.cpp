#include "program.h"

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>

#include "arm_messages.h"
#include "command_envelope.h"

namespace arm {

namespace envelope = brix::envelope;

namespace {

constexpr int kMaxPauseMs = 60000;

// JsonCpp reports each error as "* Line 1, Column 5\n  what is wrong\n"; the first one is enough.
std::string firstError(const std::string& errors) {
  std::istringstream lines(errors);
  std::string place;
  std::string what;
  std::getline(lines, place);
  std::getline(lines >> std::ws, what);
  const auto column = place.rfind("Column ");
  if (column == std::string::npos || what.empty()) return errors;
  return place.substr(column) + ": " + what;
}

// Stricter than the reader of network messages: a second value or a comment behind the request is a
// slip of the program's author.
Json::Value parseStrictly(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return value;
  } catch (const Json::Exception& error) {
    errors = error.what();
  }
  throw ProgramError("not JSON: " + firstError(errors));
}

Json::Value takeMember(Json::Value& object, const char* name) {
  Json::Value value;
  object.removeMember(name, &value);
  return value;
}

void readExpectation(const Json::Value& expect, ProgramStep& step) {
  if (expect.isNull()) return;
  if (!expect.isObject()) throw ProgramError("\"expect\" must be an object");
  const Json::Value code = expect.get(envelope::kCodeKey, envelope::kCodeHandled);
  if (!code.isInt()) throw ProgramError("\"expect\": \"code\" must be an integer");
  step.expectedCode = code.asInt();
  if (!expect.isMember(envelope::kMsgKey)) return;
  if (!expect[envelope::kMsgKey].isString())
    throw ProgramError("\"expect\": \"msg\" must be a string");
  step.expectedMsg = expect[envelope::kMsgKey].asString();
}

void readOwnMembers(Json::Value& object, ProgramStep& step) {
  readExpectation(takeMember(object, "expect"), step);
  const Json::Value wait = takeMember(object, "wait");
  if (!wait.isNull() && !wait.isBool()) throw ProgramError("\"wait\" must be true or false");
  step.waitForArrival = wait.isNull() || wait.asBool();

  const Json::Value pause = takeMember(object, "pause_ms");
  if (pause.isNull()) return;
  if (!pause.isInt() || pause.asInt() < 0 || pause.asInt() > kMaxPauseMs) {
    throw ProgramError("\"pause_ms\" must be an integer from 0 to " + std::to_string(kMaxPauseMs));
  }
  step.pauseMs = pause.asInt();
}

ProgramStep parseStep(const std::string& text) {
  Json::Value object = parseStrictly(text);
  if (!object.isObject()) throw ProgramError("not a JSON object");
  if (!object[envelope::kCommandKey].isString()) throw ProgramError("no string \"command\"");
  if (object.isMember(kIdKey)) throw ProgramError("\"id\" is set by the operator");

  ProgramStep step;
  readOwnMembers(object, step);
  step.command = object[envelope::kCommandKey].asString();
  if (step.command == "move_joints") {
    step.targetDeg = jointsFromJson(object["joints_deg"]);
    if (!step.targetDeg) throw ProgramError("\"joints_deg\" must be an array of 6 numbers");
  }
  step.request = std::move(object);
  return step;
}

// Without the blanks around it, and without the CR of a file from another system.
std::string trimmed(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::vector<ProgramStep> readProgram(std::istream& in) {
  std::vector<ProgramStep> steps;
  std::string text;
  for (std::size_t line = 1; std::getline(in, text); ++line) {
    const std::string request = trimmed(text);
    if (request.empty() || request.front() == '#') continue;
    try {
      steps.push_back(parseStep(request));
    } catch (const ProgramError& error) {
      throw ProgramError("line " + std::to_string(line) + ": " + error.what());
    }
    steps.back().line = line;
  }
  if (in.bad()) throw ProgramError("cannot be read: " + std::generic_category().message(errno));
  if (steps.empty()) throw ProgramError("holds no request");
  return steps;
}

std::vector<ProgramStep> loadProgram(const std::string& path) {
  std::ifstream file(path);
  if (!file)
    throw ProgramError(path + ": cannot be opened: " + std::generic_category().message(errno));
  try {
    return readProgram(file);
  } catch (const ProgramError& error) {
    throw ProgramError(path + ": " + error.what());
  }
}

}  // namespace arm
