#pragma once

#include <string>
#include <vector>

namespace test {

using Messages = std::vector<std::string>;

/// The splitter's contract step by step: slow, but plainly right.
struct SplitterModel {
  /// @return false if the unfinished message got too long; it is dropped then
  bool feed(const std::string& chunk, const std::string& delimiter = "\r\n") {
    if (delimiter.empty()) {
      msgs.push_back(chunk);
    } else if ((tail += chunk).size() >= 2) {
      cut(delimiter);
    }
    if (maxBytes == 0 || tail.size() <= maxBytes) return true;
    tail.clear();
    return false;
  }

  std::size_t maxBytes = 0;  ///< 0: no limit
  std::string tail;
  Messages msgs;

 private:
  void cut(const std::string& delimiter) {
    const std::size_t size = delimiter.size();
    const bool ended =
        tail.size() >= size && tail.compare(tail.size() - size, size, delimiter) == 0;
    std::string rest = ended ? tail : tail + delimiter;
    Messages pieces;
    for (std::size_t at; (at = rest.find(delimiter)) != std::string::npos;) {
      pieces.push_back(rest.substr(0, at));
      rest = rest.substr(at + size);
    }
    tail.clear();
    if (!ended || size != 2) {
      tail = pieces.back();
      pieces.pop_back();
    }
    for (const std::string& piece : pieces) {
      if (!piece.empty()) msgs.push_back(piece);
    }
  }
};

}  // namespace test
