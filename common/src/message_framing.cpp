#include "message_framing.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "log_macros.h"
#include "message_splitter.h"

namespace brix {
namespace {

// Receivers agree with senders on two bytes; a shorter buffer cannot end complete.
constexpr std::size_t kDelimiterBytes = sizeof(kDelimiter) - 1;

constexpr std::size_t kLargeBytes = 65536;
constexpr std::size_t kLargeSteps = 4;
constexpr std::size_t kMostExpected = 32768;

/// Two different bytes, as of every link in practice: no two of them overlap.
bool isPair(const std::string& delimiter) {
  return delimiter.size() == kDelimiterBytes && delimiter[0] != delimiter[1];
}

/// @return where the first pair begins; null: there is none
const char* findPair(const char* from, const char* end, const std::string& pair) {
  while (end - from >= static_cast<std::ptrdiff_t>(kDelimiterBytes)) {
    const auto reach = static_cast<std::size_t>(end - from) - 1;
    const auto* const hit = static_cast<const char*>(std::memchr(from, pair[0], reach));
    if (hit == nullptr || hit[1] == pair[1]) return hit;
    from = hit + 1;
  }
  return nullptr;
}

/// Makes the messages of [begin, end).
/// @param from  where the first pair is looked for
/// @return the beginning of the unfinished message
const char* cutPairs(const char* begin, const char* from, const char* end,
                     std::vector<std::string>& msgs, const std::string& pair) {
  while (const char* const hit = findPair(from, end, pair)) {
    if (msgs.empty()) {  // the others may be as long as the first
      const auto length = static_cast<std::size_t>(hit - begin) + kDelimiterBytes;
      msgs.reserve(std::min(static_cast<std::size_t>(end - begin) / length, kMostExpected));
    }
    if (hit > begin) msgs.emplace_back(begin, hit);
    begin = from = hit + kDelimiterBytes;
  }
  return begin;
}

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

// A large message grows in large steps: what is copied at each of them is touched anew, and memory
// that is not touched costs nothing.
void MessageSplitter::append(const char* data, std::size_t size) {
  const std::size_t needed = buffer_.size() + size;
  if (needed > kLargeBytes && needed > buffer_.capacity()) buffer_.reserve(kLargeSteps * needed);
  buffer_.append(data, size);
}

void MessageSplitter::feed(const char* data, std::size_t size, std::vector<std::string>& msgs,
                           const std::string& delimiter) {
  if (delimiter.empty()) {
    msgs.emplace_back(data, size);
  } else if (size != 0 && isPair(delimiter) && searchedAll(delimiter)) {
    feedPairs(data, data + size, msgs, delimiter);
  } else {
    append(data, size);
    split(msgs, delimiter);
  }
}

// Whole messages are made from the chunk itself; only the unfinished one goes through the buffer.
void MessageSplitter::feedPairs(const char* begin, const char* end, std::vector<std::string>& msgs,
                                const std::string& delimiter) {
  searchedFor_ = delimiter;
  if (!buffer_.empty()) {
    const char* tailEnd = findPair(begin, end, delimiter);
    const bool halved = buffer_.back() == delimiter[0] && *begin == delimiter[1];
    if (halved) {
      buffer_.pop_back();
      ++begin;
    } else if (tailEnd != nullptr) {
      append(begin, static_cast<std::size_t>(tailEnd - begin));
      begin = tailEnd + kDelimiterBytes;
    } else {
      append(begin, static_cast<std::size_t>(end - begin));
      searched_ = buffer_.size();
      return;
    }
    handOverBuffer(msgs);
  }
  begin = cutPairs(begin, begin, end, msgs, delimiter);
  buffer_.assign(begin, end);
  searched_ = buffer_.size();
}

int MessageSplitter::split(std::vector<std::string>& msgs, const std::string& delimiter) {
  if (buffer_.size() < kDelimiterBytes) return 0;
  if (delimiter.empty()) {
    msgs.push_back(std::move(buffer_));
    buffer_.clear();
    searched_ = 0;
    return 1;
  }
  if (searchedFor_ != delimiter) {
    searched_ = 0;
    searchedFor_ = delimiter;
  }
  if (isPair(delimiter)) {
    splitPairs(msgs, delimiter);
  } else {
    cut(msgs, delimiter);
  }
  searched_ = buffer_.size();
  return 1;
}

void MessageSplitter::splitPairs(std::vector<std::string>& msgs, const std::string& delimiter) {
  const char* const begin = buffer_.data();
  const char* const end = begin + buffer_.size();
  const char* const from = begin + (searched_ == 0 ? 0 : searched_ - 1);
  if (findPair(from, end, delimiter) ==
      end - kDelimiterBytes) {  // one message, perhaps a large one
    buffer_.resize(buffer_.size() - kDelimiterBytes);
    handOverBuffer(msgs);
    return;
  }
  const char* const rest = cutPairs(begin, from, end, msgs, delimiter);
  buffer_.erase(0, static_cast<std::size_t>(rest - begin));
}

// A large one is moved, which saves a copy and gives its storage back.
void MessageSplitter::handOverBuffer(std::vector<std::string>& msgs) {
  if (buffer_.size() >= kLargeBytes) {
    msgs.push_back(std::move(buffer_));
  } else if (!buffer_.empty()) {
    msgs.push_back(buffer_);
  }
  buffer_.clear();
}

// Any other delimiter than a pair, also one whose bytes may overlap.
void MessageSplitter::cut(std::vector<std::string>& msgs, const std::string& delimiter) {
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
}

}  // namespace brix
