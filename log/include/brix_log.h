/// @file
/// What the kit's logging library offers to its host process, beside the facade.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "log_facade.h"

namespace brix_log {

/// Receives one rendered line: time, level word, file:line and text, without colour and without the
/// final newline.
///
/// Called on the logging thread, one line at a time for the whole process. It may log itself: such
/// a line goes to standard error. An exception that leaves it is dropped, and the line goes to
/// standard error.
using Sink = std::function<void(brix::LogLevel level, const std::string& line)>;

/// Sends all further lines to `sink`; an empty one sends them to standard error again. On return no
/// other thread is inside the previous sink.
BRIX_LOG_API void setSink(Sink sink);

/// Limits one line's text; of a longer text the rest is counted at its end. The default is 64 KiB.
/// @param bytes  0 counts as 1
BRIX_LOG_API void setMaxTextBytes(std::size_t bytes);

}  // namespace brix_log
