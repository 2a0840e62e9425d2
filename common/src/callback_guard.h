#pragma once

#include <cxxabi.h>

#include <exception>

#include "log_facade.h"

namespace brix {

/// Runs code of the application, or code that calls it: nothing that it throws gets past here.
/// @param what  names the callback in the log line
/// @return whether nothing was thrown
template <typename Body>
bool guarded(const char* what, Body&& body, const char* file = __builtin_FILE(),
             int line = __builtin_LINE()) {
  try {
    body();
    return true;
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being ended: not an error, and must not be swallowed
  } catch (const std::exception& error) {
    getLogInstance()->log(file, line, LogLevel::Error, "%s exception: %s", what, error.what());
  } catch (...) {
    getLogInstance()->log(file, line, LogLevel::Error, "%s exception: %s", what,
                          "not a std::exception");
  }
  return false;
}

}  // namespace brix
