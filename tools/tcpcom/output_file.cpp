#include "output_file.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>

namespace tcpcom {
namespace {

constexpr double kReaderPollS = 0.05;
constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK;

}  // namespace

OutputFile::OutputFile(const Run& run, const std::string& path)
    : run_(run), name_("\"" + path + "\"") {
  while (!(file_ = Descriptor(open(path.c_str(), kFlags, 0666)))) {
    const int code = errno;
    std::error_code unknown;
    if (code != ENXIO || !std::filesystem::is_fifo(path, unknown)) {
      throw Failure(Status::Other, "cannot write " + name_ + ": " + errorText(code));
    }
    const Wake wake = run.waiter.pause(after(kReaderPollS));
    if (wake != Wake::TimedOut) failAwaiting(wake, name_ + " is not read");
  }
}

void OutputFile::write(const std::string& bytes) const {
  writeAll(run_.waiter, file_.get(), name_, bytes);
}

}  // namespace tcpcom
