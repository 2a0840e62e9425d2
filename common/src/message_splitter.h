#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace brix {

inline bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// @return whether an unfinished message is longer than `maxBytes`, with a log line then; 0 is no
///   limit
bool exceeds(std::size_t maxBytes, const std::string& unfinished);

/// Cuts a byte stream into messages; the one mechanism behind decodeMsgs and every receiver.
///
/// Holds the unfinished tail and how far it was searched, so that a large message that comes in
/// many chunks is searched once. Used by one thread.
class MessageSplitter {
 public:
  /// Starts with bytes that were received before.
  explicit MessageSplitter(std::string buffer = {}) : buffer_(std::move(buffer)) {}

  /// Appends received bytes to the buffer.
  void append(const char* data, std::size_t size);

  /// Cuts the buffer; the contract of decodeMsgs.
  int split(std::vector<std::string>& msgs, const std::string& delimiter);

  /// Appends a chunk and cuts; with an empty delimiter the chunk is one message and the buffer is
  /// not used.
  void feed(const char* data, std::size_t size, std::vector<std::string>& msgs,
            const std::string& delimiter);

  /// The unfinished tail.
  const std::string& buffer() const { return buffer_; }

  /// Drops the tail.
  void clear() {
    buffer_.clear();
    buffer_.shrink_to_fit();
    searched_ = 0;
  }

  /// Gives the tail away.
  std::string takeBuffer() { return std::move(buffer_); }

 private:
  bool searchedAll(const std::string& delimiter) const {
    return buffer_.empty() || (searched_ == buffer_.size() && searchedFor_ == delimiter);
  }
  void feedPairs(const char* begin, const char* end, std::vector<std::string>& msgs,
                 const std::string& delimiter);
  void splitPairs(std::vector<std::string>& msgs, const std::string& delimiter);
  void handOverBuffer(std::vector<std::string>& msgs);
  void cut(std::vector<std::string>& msgs, const std::string& delimiter);

  std::string buffer_;
  std::size_t searched_ = 0;  // no delimiter begins and ends within the first searched_ bytes
  std::string searchedFor_;   // the delimiter that searched_ was counted with
};

}  // namespace brix
