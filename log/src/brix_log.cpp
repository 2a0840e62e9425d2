#include "brix_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "callback_guard.h"
#include "errno_keeper.h"
#include "format.h"
#include "sigpipe_guard.h"
#include "thread_end.h"

namespace brix_log {
namespace {

constexpr std::size_t kDefaultMaxTextBytes = std::size_t{64} * 1024;

/// Where lines go. Made on first use and never destroyed, because static objects and late threads
/// log until the process is gone.
struct Output {
  std::mutex mutex;  // guards sink; held while a line is written or the sink runs
  std::shared_ptr<const Sink> sink;
  std::atomic<std::size_t> maxTextBytes{kDefaultMaxTextBytes};
};

Output& output() {
  static Output* const instance = new Output;
  return *instance;
}

thread_local bool insideSink = false;

std::string timeStamp() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char date[32];
  char stamp[64];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(stamp, sizeof stamp, "%s.%06ld", date, static_cast<long>(now.tv_usec));
  return stamp;
}

/// Writes all bytes; one write in the usual case, more only where a pipe takes a long line in
/// parts.
void writeAll(const char* data, std::size_t size) {
  const brix::SigpipeGuard guard(brix::SigpipeGuard::Block::Sigpipe);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t written = write(STDERR_FILENO, data + done, size - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == -1 && errno == EPIPE) {
      guard.consume();
      return;
    } else if (written == 0 || errno != EINTR) {
      return;  // nobody is left who could be told
    }
  }
}

void writeToStandardError(const std::string& line, const char* colorEscape) {
  const bool colored = colorEscape != nullptr && isatty(STDERR_FILENO) == 1;
  const char* reset = brix::detail::kColorRows[0].escape;
  const std::string bytes = colored ? colorEscape + line + reset + "\n" : line + "\n";
  writeAll(bytes.data(), bytes.size());
}

BRIX_SEES_THREAD_END bool callSink(const Sink& sink, brix::LogLevel level,
                                   const std::string& line) {
  insideSink = true;
  bool taken = true;
  try {
    sink(level, line);
  } catch (abi::__forced_unwind&) {
    insideSink = false;
    throw;
  } catch (...) {
    taken = false;
  }
  insideSink = false;
  return taken;
}

void emit(brix::LogLevel level, const std::string& line, const char* colorEscape) {
  if (insideSink) {  // this thread holds the lock already
    writeToStandardError(line, colorEscape);
    return;
  }
  Output& out = output();
  std::shared_ptr<const Sink> sink;  // it may replace itself, and log as it is destroyed
  std::lock_guard<std::mutex> lock(out.mutex);
  sink = out.sink;
  if (sink && callSink(*sink, level, line)) return;
  writeToStandardError(line, colorEscape);
}

void write(brix::LogLevel level, const char* file, int line, const std::string& prefix,
           const char* fmt, va_list args) {
  const Rendered rendered = render(fmt, args, output().maxTextBytes);
  std::string text = timeStamp();
  text += level == brix::LogLevel::Error ? " ERROR " : " INFO ";
  text += file != nullptr ? file : "?";
  text += ":" + std::to_string(line) + " " + prefix + rendered.text;
  emit(level, text, rendered.colorEscape);
}

/// Logging is never a reason to lose the process: without memory the line is lost instead.
template <typename Body>
BRIX_SEES_THREAD_END void keepingErrno(Body&& body) {
  const brix::ErrnoKeeper keeper;
  try {
    body();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    constexpr char kLost[] = "ERROR a log line was lost\n";
    writeAll(kLost, sizeof kLost - 1);
  }
}

}  // namespace

void setSink(Sink sink) {
  Output& out = output();
  auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  std::unique_lock<std::mutex> lock(out.mutex, std::defer_lock);
  if (!insideSink) lock.lock();  // a sink runs under the lock
  std::swap(out.sink, next);
}

void setMaxTextBytes(std::size_t bytes) {
  output().maxTextBytes = std::max<std::size_t>(bytes, 1);
}

}  // namespace brix_log

namespace brix {

bool brix_controller_error = false;

void LogManager::log(const char* file, int line, LogLevel level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  brix_log::keepingErrno([&] { brix_log::write(level, file, line, "", fmt, args); });
  va_end(args);
}

void LogManager::err(const char* file, int line, BrixErrorCode code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  brix_log::keepingErrno([&] {
    const char* name = brix_log::errorCodeName(code);
    const std::string shown = name != nullptr ? name : std::to_string(static_cast<int>(code));
    brix_log::write(LogLevel::Error, file, line, "[" + shown + "] ", fmt, args);
  });
  va_end(args);
}

LogManager* getLogInstance() {
  static LogManager* const instance = new LogManager;
  return instance;
}

}  // namespace brix

void printErr(int errnum, const char* file, const char* func, int line) {
  char buffer[128];
  const brix::ErrnoKeeper keeper;
  const char* text = strerror_r(errnum, buffer, sizeof buffer);
  brix::getLogInstance()->log(file, line, brix::LogLevel::Error, "%s: %s (errno %d)",
                              func != nullptr ? func : "?", text, errnum);
}

namespace log_time {

TimerUnit::TimerUnit() : start(), end(), elapsed(0) {}

void timer_start(TimerUnit& unit) {
  unit.start = std::chrono::steady_clock::now();
}

void timer_end(TimerUnit& unit) {
  unit.end = std::chrono::steady_clock::now();
  unit.elapsed = std::chrono::duration<double, std::milli>(unit.end - unit.start).count();
}

}  // namespace log_time
