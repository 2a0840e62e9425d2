#include "message_framing.h"

#include <utility>

#include "log_macros.h"
#include "message_splitter.h"

namespace brix {
namespace {

// Receivers agree with senders on two bytes; a shorter buffer cannot end complete.
constexpr std::size_t kDelimiterBytes = sizeof(kDelimiter) - 1;

void addUnlessEmpty(std::vector<std::string>& msgs, const std::string& buffer, std::size_t begin,
                    std::size_t end) {
  if (end > begin) msgs.emplace_back(buffer, begin, end - begin);
}

}  // namespace

bool exceeds(std::size_t maxBytes, const std::string& unfinished) {
  if (maxBytes == 0 || unfinished.size() <= maxBytes) return false;
  BRIX_LOG_ERROR("unfinished message of %zu bytes is too long, connection ended",
                 unfinished.size());
  return true;
}

int decodeMsgs(std::string& buffer, std::vector<std::string>& msgs, const std::string& delimiter) {
  MessageSplitter splitter(std::move(buffer));
  const int result = splitter.split(msgs, delimiter);
  buffer = splitter.takeBuffer();
  return result;
}

void MessageSplitter::feed(const char* data, std::size_t size, std::vector<std::string>& msgs,
                           const std::string& delimiter) {
  if (delimiter.empty()) {
    msgs.emplace_back(data, size);
    return;
  }
  append(data, size);
  split(msgs, delimiter);
}

int MessageSplitter::split(std::vector<std::string>& msgs, const std::string& delimiter) {
  if (buffer_.size() < kDelimiterBytes) return 0;
  if (delimiter.empty()) {
    msgs.push_back(std::move(buffer_));
    buffer_.clear();
    searched_ = 0;
    return 1;
  }
  cut(msgs, delimiter);
  return 1;
}

void MessageSplitter::cut(std::vector<std::string>& msgs, const std::string& delimiter) {
  if (searchedFor_ != delimiter) {
    searched_ = 0;
    searchedFor_ = delimiter;
  }
  const bool terminated = endsWith(buffer_, delimiter);
  const bool complete = terminated && delimiter.size() == kDelimiterBytes;
  // With a delimiter at the end every piece, the last one too, is the text before a delimiter.
  if (!terminated) buffer_ += delimiter;

  std::size_t lastBegin = 0;
  std::size_t lastEnd =
      buffer_.find(delimiter, searched_ < delimiter.size() ? 0 : searched_ - delimiter.size() + 1);
  for (;;) {
    const std::size_t begin = lastEnd + delimiter.size();
    const std::size_t end = buffer_.find(delimiter, begin);
    if (end == std::string::npos) break;
    addUnlessEmpty(msgs, buffer_, lastBegin, lastEnd);
    lastBegin = begin;
    lastEnd = end;
  }

  if (complete) {
    addUnlessEmpty(msgs, buffer_, lastBegin, lastEnd);
    buffer_.clear();
  } else {
    buffer_.resize(lastEnd);
    buffer_.erase(0, lastBegin);
  }
  searched_ = buffer_.size();
}

}  // namespace brix
