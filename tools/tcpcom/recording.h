// A session with its timing, as a file of JSON lines.
#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace tcpcom {

struct RecordedMessage {
  double atS = 0;  ///< after the connection was made
  std::string text;
};

/// @return the file's first line
std::string recordingHeader(const std::string& peer, double startedWallS);

/// @return the line of one message
std::string recordingLine(const RecordedMessage& message);

/// @throws Failure  with Usage, telling the line that is wrong
std::vector<RecordedMessage> loadRecording(const Run& run, const std::string& path);

}  // namespace tcpcom
