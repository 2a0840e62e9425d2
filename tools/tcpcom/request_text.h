// The text of a request, from what the command line gives.
#pragma once

#include <string>

#include "run.h"

namespace tcpcom {

/// @param given  a JSON text, "@FILE", "-" for standard input, or empty for no members
/// @throws Failure  if it cannot be read, or as the run ends
std::string membersText(const Run& run, const std::string& given);

/// @param members  text of an object
/// @return the request, on one line
/// @throws Failure  with Usage if that is no object that can be one
std::string requestText(const std::string& command, const std::string& members);

}  // namespace tcpcom
