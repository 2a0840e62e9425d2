/// @file
/// Which log lines of the library a program shows.
#pragma once

namespace arm {

enum class LogShow { Nothing, Errors, All };

/// Shows log lines on standard error from now on; on a terminal they wipe a progress bar.
void showLogLines(LogShow show);

}  // namespace arm
