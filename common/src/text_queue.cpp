#include "text_queue.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "log_macros.h"

namespace brix {
namespace {

constexpr double kReportMs = 1000;

// An empty text takes memory too.
std::ptrdiff_t cost(const std::string& text) {
  return static_cast<std::ptrdiff_t>(text.size() + sizeof(std::string));
}

}  // namespace

void TextQueue::setLimit(std::size_t bytes) {
  constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
  limit_ = static_cast<std::ptrdiff_t>(std::min(bytes, kMost));
}

void TextQueue::push(std::string text) {
  const std::ptrdiff_t bytes = cost(text);
  texts_.push(std::move(text));
  bytes_ += bytes;
  if (drops_ && limit_ != 0 && bytes_ > limit_) dropOldest();
}

std::string TextQueue::pop() {
  std::string text;
  if (texts_.tryPop(text)) bytes_ -= cost(text);
  return text;
}

void TextQueue::clear() {
  while (!texts_.empty()) pop();
}

void TextQueue::dropOldest() {
  {
    std::lock_guard<std::mutex> lock(dropLock_);
    while (bytes_ > limit_ && texts_.size() > 1) {
      pop();
      ++dropped_;
    }
  }
  report();
}

void TextQueue::report() {
  if (dropped_ == 0) return;
  std::lock_guard<std::mutex> lock(dropLock_);
  log_time::timer_end(sinceReport_);
  if (dropped_ == 0 || (reported_ && sinceReport_.elapsed < kReportMs)) return;
  log_time::timer_start(sinceReport_);
  reported_ = true;
  BRIX_LOG_ERROR("too many bytes queued, oldest texts dropped: %d", dropped_.exchange(0));
}

}  // namespace brix
