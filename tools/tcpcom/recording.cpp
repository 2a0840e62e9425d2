#include "recording.h"

#include <cmath>
#include <optional>
#include <sstream>

#include "input.h"
#include "json_text.h"
#include "status.h"

namespace tcpcom {
namespace {

constexpr char kVersionKey[] = "tcpcom";
constexpr int kVersion = 1;
constexpr char kTimeKey[] = "t";
constexpr double kLongestS = 1e9;

/// @return nothing if the line is no message that may follow the one before
std::optional<RecordedMessage> parseLine(const std::string& line, double afterS) {
  const auto value = parseJson(line);
  if (!value || !value->isObject() || !(*value)[kTimeKey].isNumeric()) return std::nullopt;
  const double atS = (*value)[kTimeKey].asDouble();
  auto text = bytesOf(*value);
  if (!text || !std::isfinite(atS) || atS < afterS || atS > kLongestS) return std::nullopt;
  return RecordedMessage{atS, std::move(*text)};
}

bool isHeader(const std::string& line) {
  const auto value = parseJson(line);
  return value && value->isObject() && (*value)[kVersionKey] == kVersion;
}

}  // namespace

std::string recordingHeader(const std::string& peer, double startedWallS) {
  return JsonLine()
      .integer(kVersionKey, kVersion)
      .text("peer", peer)
      .number("started", startedWallS)
      .str();
}

std::string recordingLine(const RecordedMessage& message) {
  return JsonLine().number(kTimeKey, message.atS).bytes(message.text).str();
}

std::vector<RecordedMessage> loadRecording(const Run& run, const std::string& path) {
  std::istringstream lines(readFile(run, path));
  std::vector<RecordedMessage> messages;
  std::string line;
  for (long number = 1; std::getline(lines, line); ++number) {
    if (number == 1 && isHeader(line)) continue;
    auto message = parseLine(line, messages.empty() ? 0 : messages.back().atS);
    if (number == 1 || !message) {
      throw Failure(Status::Usage,
                    "\"" + path + "\", line " + std::to_string(number) +
                        (number == 1 ? ": no recording of this version"
                                     : ": no message, or earlier than the one before"));
    }
    messages.push_back(std::move(*message));
  }
  if (messages.empty()) throw Failure(Status::Usage, "\"" + path + "\" holds no message");
  return messages;
}

}  // namespace tcpcom
