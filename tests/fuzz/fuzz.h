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
#include "splitter_model.h"

/// One run of a target.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

using test::Messages;
using Model = test::SplitterModel;

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
