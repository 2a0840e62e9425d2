#pragma once

#include <cerrno>
#include <type_traits>

#include "log_facade.h"

namespace brix {

/// Hands format and arguments over twice in a row, as the kit's loggers expect them, although each
/// argument is evaluated only once.
template <typename... Args>
void logTwice(const char* file, int line, LogLevel level, const char* fmt, Args... args) {
  static_assert(((std::is_arithmetic_v<Args> || std::is_pointer_v<Args>)&&...),
                "a log argument is a number or a pointer");
  getLogInstance()->log(file, line, level, fmt, args..., fmt, args...);
}

}  // namespace brix

#define BRIX_LOG_INFO(...) ::brix::logTwice(__FILE__, __LINE__, ::brix::LogLevel::Info, __VA_ARGS__)
#define BRIX_LOG_ERROR(...) \
  ::brix::logTwice(__FILE__, __LINE__, ::brix::LogLevel::Error, __VA_ARGS__)
#define BRIX_PRINT_ERRNO(func) ::printErr(errno, __FILE__, func, __LINE__)
