// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "brix_log.h"
#include "raw_socket.h"

/// One run of a target.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

using Messages = std::vector<std::string>;

// Lines are rendered, as they may have faults too, and dropped.
inline const bool silent = (brix_log::setSink([](brix::LogLevel, const std::string&) {}), true);

/// Makes a report of this input unless `ok`.
inline void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz: wrong: %s\n", what);
  std::abort();
}

/// One byte of options, then the chunks of a stream with 0xFF between them. None is empty.
struct Input {
  Input(const std::uint8_t* data, std::size_t size, std::size_t maxChunkBytes) {
    if (size == 0) return;
    options = data[0];
    std::string chunk;
    for (std::size_t i = 1; i < std::min(size, kMaxBytes) && chunks.size() < kMaxChunks; ++i) {
      const bool border = data[i] == 0xFF;
      if (!border) chunk += static_cast<char>(data[i]);
      if (chunk.empty() || (!border && chunk.size() < maxChunkBytes)) continue;
      chunks.push_back(chunk);
      chunk.clear();
    }
    if (!chunk.empty()) chunks.push_back(chunk);
  }

  unsigned options = 0;
  Messages chunks;

 private:
  // What a socket's buffer takes, and six times that for a reply, while nobody reads.
  static constexpr std::size_t kMaxBytes = 16384, kMaxChunks = 64;
};

/// The splitter's contract step by step: slow, but plainly right.
struct Model {
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

/// Two ends of a connection on which one send is one receive. Waits for descriptors that the
/// library still holds.
inline std::pair<test::RawSocket, test::RawSocket> packetPair() {
  for (int tries = 0;; ++tries) {
    try {
      return test::RawSocket::pair(SOCK_SEQPACKET);
    } catch (const std::runtime_error&) {
      require(tries < 10000, "no descriptor is left");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

/// Sends every chunk, as far as the other end still reads, and no more after them.
inline void sendAll(const test::RawSocket& peer, const Messages& chunks) {
  for (const std::string& chunk : chunks) {
    if (send(peer.fd(), chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0) break;
  }
  shutdown(peer.fd(), SHUT_WR);
}

}  // namespace fuzz
