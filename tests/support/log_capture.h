// Takes the process's log lines for a test to look into.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "brix_log.h"
#include "wait.h"

namespace test {

struct LogLine {
  brix::LogLevel level;
  std::string line;
  Clock::time_point at;
};

/// Collects every line while it lives.
class LogCapture {
 public:
  LogCapture() {
    brix_log::setSink([this](brix::LogLevel level, const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back({level, line, Clock::now()});
    });
  }
  ~LogCapture() { brix_log::setSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

  /// @return number of lines of that level whose text contains `text`
  std::size_t count(brix::LogLevel level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&](const LogLine& entry) {
          return entry.level == level && entry.line.find(text) != std::string::npos;
        }));
  }
  std::size_t infos(const std::string& text) const { return count(brix::LogLevel::Info, text); }
  std::size_t errors(const std::string& text) const { return count(brix::LogLevel::Error, text); }

  /// @return the sum of the numbers that lines bear after `text`
  std::size_t sumAfter(const std::string& text) const {
    std::size_t sum = 0;
    for (const LogLine& entry : lines()) {
      const std::size_t at = entry.line.find(text);
      if (at != std::string::npos) sum += std::stoul(entry.line.substr(at + text.size()));
    }
    return sum;
  }

  /// @return the texts of all lines in order, without time and place, behind "INFO " or "ERROR " if
  ///   asked for
  std::vector<std::string> texts(bool leveled = false) const {
    std::vector<std::string> result;
    for (const LogLine& entry : lines()) {
      std::size_t at = 0;  // date, time, level, place
      for (int field = 0; field < 4; ++field) at = entry.line.find(' ', at) + 1;
      const char* level = entry.level == brix::LogLevel::Error ? "ERROR " : "INFO ";
      result.push_back((leveled ? level : "") + entry.line.substr(at));
    }
    return result;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace test
