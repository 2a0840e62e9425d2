#include "text_queue.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace brix {
namespace {

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
  if (limit_ != 0 && bytes_ > limit_) dropOldest();
}

std::size_t TextQueue::pushUntilFull(std::vector<std::string>& texts, std::size_t first, bool all) {
  const std::ptrdiff_t limit = all ? 0 : limit_.load();
  const std::ptrdiff_t before = bytes_;
  std::ptrdiff_t added = 0;
  std::size_t end = first;
  while (end < texts.size() && (limit == 0 || before + added < limit)) added += cost(texts[end++]);
  const auto begin = texts.begin();
  texts_.pushAll(begin + static_cast<std::ptrdiff_t>(first),
                 begin + static_cast<std::ptrdiff_t>(end));
  bytes_ += added;
  return end;
}

std::string TextQueue::pop() {
  std::string text;
  if (texts_.tryPop(text)) bytes_ -= cost(text);
  return text;
}

void TextQueue::popSome(std::vector<std::string>& texts, std::size_t bytes) {
  std::size_t taken = 0;
  texts_.popWhile([&](std::string&& text) {
    if (taken != 0 && taken + text.size() > bytes) return false;
    const std::ptrdiff_t freed = cost(text);
    texts.push_back(std::move(text));
    taken += static_cast<std::size_t>(freed);
    bytes_ -= freed;
    return true;
  });
}

void TextQueue::clear() {
  while (!texts_.empty()) pop();
}

void TextQueue::dropOldest() {
  {
    std::lock_guard<std::mutex> lock(dropLock_);
    while (bytes_ > limit_ && texts_.size() > 1) {
      pop();
      report_.count();
    }
  }
  report();
}

void TextQueue::report() {
  report_.tell();
}

}  // namespace brix
