#pragma once

#include <exception>

#include "log_macros.h"
#include "thread_end.h"

namespace brix {

/// Runs code of the application, or code that calls it: nothing that it throws gets past here.
/// @param fmt  the log line for what was thrown, with one "%s"
/// @return whether nothing was thrown
template <typename Body>
BRIX_SEES_THREAD_END bool guarded(const char* fmt, Body&& body, const char* file = __builtin_FILE(),
                                  int line = __builtin_LINE()) {
  try {
    body();
    return true;
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being ended: not an error, and must not be swallowed
  } catch (const std::exception& error) {
    logTwice(file, line, LogLevel::Error, fmt, error.what());
  } catch (...) {
    logTwice(file, line, LogLevel::Error, fmt, "not a std::exception");
  }
  return false;
}

}  // namespace brix
