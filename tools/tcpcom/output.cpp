#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "json_text.h"

namespace tcpcom {
namespace {

constexpr char kReset[] = "\x1B[0m";

const char* escapeOf(Paint paint) {
  switch (paint) {
    case Paint::Dim:
      return "\x1B[2m";
    case Paint::Bold:
      return "\x1B[1m";
    case Paint::Red:
      return "\x1B[31m";
    case Paint::Green:
      return "\x1B[32m";
    case Paint::Yellow:
      return "\x1B[33m";
    case Paint::Plain:
      break;
  }
  return "";
}

bool showsColour(int fd) {
  // Nothing in this process changes the environment.
  const char* noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  const char* terminal = std::getenv("TERM");      // NOLINT(concurrency-mt-unsafe)
  const bool dumb = terminal == nullptr || std::strcmp(terminal, "dumb") == 0;
  return isatty(fd) == 1 && !dumb && (noColour == nullptr || *noColour == '\0');
}

/// Waits until a descriptor takes something, or the run ends.
void awaitRoom(const Waiter& waiter, int fd, const std::string& name) {
  const Wake wake = waiter.waitFor(fd, POLLOUT, kNever);
  if (wake == Wake::Ready) return;
  if (wake == Wake::OutputClosed && fd == STDOUT_FILENO) throw Failure(Status::Done, "");
  // The run's end bounds what is waited for, and not the telling of what has come.
  pollfd entry{fd, POLLOUT, 0};
  if (poll(&entry, 1, 0) > 0) return;
  if (wake == Wake::RunOver) throw Failure(Status::TimedOut, name + " is not read");
  throw Failure(wake == Wake::Interrupted ? Status::Interrupted : Status::Done, "");
}

}  // namespace

// Pieces that a pipe with room takes at once: so a reader that pauses never holds up the end.
void writeAll(const Waiter& waiter, int fd, const std::string& name, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    awaitRoom(waiter, fd, name);
    const std::size_t piece = std::min<std::size_t>(bytes.size() - done, PIPE_BUF);
    const ssize_t written = ::write(fd, bytes.data() + done, piece);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EPIPE) {
      throw Failure(Status::Done, "");
    } else if (errno != EAGAIN && errno != EINTR) {
      throw Failure(Status::Other, "cannot write " + name + ": " + errorText(errno));
    }
  }
}

Output::Output(const Settings& settings, const Waiter& waiter)
    : settings_(settings),
      waiter_(waiter),
      terminal_(isatty(STDOUT_FILENO) == 1),
      colour_(showsColour(STDOUT_FILENO) && !settings.json && !settings.raw),
      errorColour_(showsColour(STDERR_FILENO) && !settings.json) {}

void Output::write(const std::string& bytes) const {
  writeAll(waiter_, STDOUT_FILENO, "standard output", bytes);
}

void Output::say(const std::string& text, const std::string& json) const {
  try {
    // Lines of several threads do not mix, unless they are longer than a pipe takes at once.
    writeAll(waiter_, STDERR_FILENO, "standard error",
             (settings_.json ? json : "tcpcom: " + text) + '\n');
  } catch (const Failure&) {  // nowhere is left to report to
  }
}

void Output::note(const std::string& text, const std::string& json) const {
  if (settings_.quiet) return;
  say(printable(text), json.empty() ? JsonLine().text("note", text).str() : json);
}

void Output::detail(const std::string& text) const {
  if (settings_.verbose) note(text);
}

void Output::error(Status status, const std::string& text) const {
  const std::string shown =
      errorColour_ ? escapeOf(Paint::Red) + printable(text) + kReset : printable(text);
  say(shown, JsonLine().text("error", text).integer("status", static_cast<int>(status)).str());
}

std::string Output::painted(const std::string& text, Paint paint) const {
  if (!colour_ || paint == Paint::Plain) return text;
  return escapeOf(paint) + text + kReset;
}

}  // namespace tcpcom
