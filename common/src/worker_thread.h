#pragma once

#include <exception>
#include <thread>
#include <utility>

#include "callback_guard.h"
#include "log_macros.h"
#include "process_end.h"

namespace brix {

/// The one starter of std::thread workers.
/// @param what  names the thread in log lines
/// @param handle  must not be joinable
/// @return false, with a log line, if the system has no thread left
template <typename Body>
bool startThread(std::thread& handle, const char* what, Body&& body) {
  try {
    handle = std::thread(
        [run = std::forward<Body>(body)]() mutable { guarded("thread exception: %s", run); });
    return true;
  } catch (const std::exception& error) {
    BRIX_LOG_ERROR("start thread failed, %s: %s", what, error.what());
    return false;
  }
}

inline bool isOwnThread(const std::thread& handle) {
  return handle.get_id() == std::this_thread::get_id();
}

inline void detachIfJoinable(std::thread& handle) {
  if (handle.joinable()) handle.detach();
}

}  // namespace brix
