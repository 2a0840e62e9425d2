// The manual page and the shell's completion, made from the command line's own description.
#pragma once

#include "command_line.h"

namespace tcpcom {

/// Adds --generate-manual and --generate-completion, which help does not show: the build uses them.
void addManualOptions(CommandLine& line);

}  // namespace tcpcom
