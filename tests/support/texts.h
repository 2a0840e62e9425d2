#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "wait.h"

namespace test {

/// Texts that threads leave for a test to look at.
class Texts {
 public:
  void add(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(text);
  }
  std::vector<std::string> all() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }
  std::size_t count(const std::string& text) const {
    const auto texts = all();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
  }
  /// Waits until the text has come.
  bool gets(const std::string& text) const {
    return eventually([&] { return count(text) > 0; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};

}  // namespace test
