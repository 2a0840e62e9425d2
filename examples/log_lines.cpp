#include "log_lines.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "brix_log.h"

namespace arm {

void showLogLines(LogShow show) {
  const std::string start = isatty(STDERR_FILENO) != 0 ? "\r\x1B[K" : "";
  brix_log::setSink([show, start](brix::LogLevel level, const std::string& line) {
    if (show == LogShow::Nothing) return;
    if (show == LogShow::Errors && level != brix::LogLevel::Error) return;
    std::fputs((start + line + '\n').c_str(), stderr);
  });
}

}  // namespace arm
