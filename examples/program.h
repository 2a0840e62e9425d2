/// @file
/// Motion programs: what the operator plays.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "arm_model.h"
#include "command_envelope.h"

namespace arm {

/// A program that cannot be played; the text names the line.
class ProgramError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One line of a program.
struct ProgramStep {
  std::size_t line = 0;
  std::string command;
  Json::Value request;  ///< what is sent: the line without the operator's own members
  int expectedCode = brix::envelope::kCodeHandled;
  std::optional<std::string> expectedMsg;
  std::optional<JointVector> targetDeg;  ///< of move_joints
  bool waitForArrival = true;
  int pauseMs = 0;  ///< before the request is sent
};

/// Reads a program: one request a line, a JSON object with a string "command"; blank lines and
/// lines that start with '#' are skipped. The operator keeps these members to itself:
/// - "expect": {"code": int, "msg": text}, what the reply must hold; without it code 1;
/// - "wait": false to go on without waiting for the arm to arrive or to stand still;
/// - "pause_ms": 0 to 60000, a pause before the request.
///
/// @throws ProgramError  for the first line that is no request, for a stream that cannot be read
///   and for a program without a request
std::vector<ProgramStep> readProgram(std::istream& in);

/// As above, from a file. @throws ProgramError  also if the file cannot be opened
std::vector<ProgramStep> loadProgram(const std::string& path);

}  // namespace arm
