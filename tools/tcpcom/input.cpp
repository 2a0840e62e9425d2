#include "input.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>

namespace tcpcom {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

/// @return false at the end of the input
bool readSome(int fd, std::string& bytes) {
  std::array<char, kChunkBytes> chunk;
  const ssize_t got = read(fd, chunk.data(), chunk.size());
  if (got > 0) bytes.append(chunk.data(), static_cast<std::size_t>(got));
  if (got < 0 && errno != EINTR && errno != EAGAIN) {
    throw Failure(Status::Other, std::string("standard input: ") + errorText(errno));
  }
  return got != 0;
}

}  // namespace

std::string readStandardInput(const Run& run) {
  std::string bytes;
  do {
    const Wake wake = run.waiter.waitFor(STDIN_FILENO, POLLIN, kNever);
    if (wake != Wake::Ready) failAwaiting(wake, "standard input does not end");
  } while (readSome(STDIN_FILENO, bytes));
  return bytes;
}

std::string readFile(const std::string& path) {
  try {
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.is_open() && !file.bad()) return bytes;
  } catch (const std::ios_base::failure&) {  // a folder, for one
  }
  throw Failure(Status::Usage, "cannot read \"" + path + "\"");
}

bool LineCutter::readFrom(int fd) {
  buffer_.erase(0, begin_);
  begin_ = 0;
  over_ = !readSome(fd, buffer_);
  return !over_;
}

std::optional<std::string> LineCutter::next() {
  const std::size_t end = buffer_.find('\n', begin_);
  if (end == std::string::npos && (!over_ || begin_ == buffer_.size())) return std::nullopt;
  std::string line = buffer_.substr(begin_, end == std::string::npos ? end : end - begin_);
  begin_ = end == std::string::npos ? buffer_.size() : end + 1;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace tcpcom
