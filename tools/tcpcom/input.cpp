#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "descriptor.h"

namespace tcpcom {
namespace {

constexpr char kStandardInput[] = "standard input";
constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

/// @return false at the end of the input
bool readSome(int fd, std::string& bytes, const std::string& name, Status unreadable) {
  std::array<char, kChunkBytes> chunk;
  const ssize_t got = read(fd, chunk.data(), chunk.size());
  if (got > 0) bytes.append(chunk.data(), static_cast<std::size_t>(got));
  if (got < 0 && errno != EINTR && errno != EAGAIN) {
    throw Failure(unreadable, "cannot read " + name + ": " + errorText(errno));
  }
  return got != 0;
}

std::string readAll(const Run& run, int fd, const std::string& name, Status unreadable) {
  std::string bytes;
  do {
    const Wake wake = run.waiter.waitFor(fd, POLLIN, kNever);
    if (wake != Wake::Ready) failAwaiting(wake, name + " does not end");
  } while (readSome(fd, bytes, name, unreadable));
  return bytes;
}

}  // namespace

std::string readStandardInput(const Run& run) {
  return readAll(run, STDIN_FILENO, kStandardInput, Status::Other);
}

// It may be a pipe, whose writer comes late: that must not keep the run from its end.
std::string readFile(const Run& run, const std::string& path) {
  const std::string name = "\"" + path + "\"";
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) throw Failure(Status::Usage, "cannot read " + name + ": " + errorText(errno));
  return readAll(run, file.get(), name, Status::Usage);
}

bool LineCutter::readFrom(int fd) {
  buffer_.erase(0, begin_);
  searched_ -= begin_;
  begin_ = 0;
  over_ = !readSome(fd, buffer_, kStandardInput, Status::Other);
  return !over_;
}

std::optional<std::string> LineCutter::next() {
  const std::size_t end = buffer_.find('\n', searched_);
  searched_ = end == std::string::npos ? buffer_.size() : end + 1;
  if (end == std::string::npos && (!over_ || begin_ == buffer_.size())) return std::nullopt;
  std::string line = buffer_.substr(begin_, end == std::string::npos ? end : end - begin_);
  begin_ = searched_;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace tcpcom
