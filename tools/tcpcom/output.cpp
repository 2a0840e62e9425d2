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

}  // namespace

Output::Output(const Settings& settings, const Waiter& waiter)
    : settings_(settings),
      waiter_(waiter),
      terminal_(isatty(STDOUT_FILENO) == 1),
      colour_(showsColour(STDOUT_FILENO) && !settings.json && !settings.raw),
      errorColour_(showsColour(STDERR_FILENO) && !settings.json) {}

// Pieces that a pipe with room takes at once: so a reader that pauses never holds up the end.
void Output::write(const std::string& bytes) const {
  std::size_t done = 0;
  while (done < bytes.size()) {
    awaitRoom();
    const std::size_t piece = std::min<std::size_t>(bytes.size() - done, PIPE_BUF);
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data() + done, piece);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EPIPE) {
      throw Failure(Status::Done, "");
    } else if (errno != EAGAIN && errno != EINTR) {
      throw Failure(Status::Other, std::string("standard output: ") + errorText(errno));
    }
  }
}

void Output::awaitRoom() const {
  const Wake wake = waiter_.waitFor(STDOUT_FILENO, POLLOUT, kNever);
  if (wake == Wake::Ready) return;
  if (wake == Wake::OutputClosed) throw Failure(Status::Done, "");
  // The run's end bounds what is waited for, and not the telling of what has come.
  pollfd entry{STDOUT_FILENO, POLLOUT, 0};
  if (poll(&entry, 1, 0) > 0) return;
  if (wake == Wake::Interrupted) throw Failure(Status::Interrupted, "");
  throw Failure(Status::TimedOut, "standard output is not read");
}

void Output::say(const std::string& text, const std::string& json) const {
  const std::string line = (settings_.json ? json : "tcpcom: " + text) + '\n';
  // One write a line, so that lines of several threads do not mix; nowhere is left to report to.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void Output::note(const std::string& text, const std::string& json) const {
  if (settings_.quiet) return;
  say(text, json.empty() ? JsonLine().text("note", text).str() : json);
}

void Output::detail(const std::string& text) const {
  if (settings_.verbose) note(text);
}

void Output::error(Status status, const std::string& text) const {
  const std::string shown = errorColour_ ? escapeOf(Paint::Red) + text + kReset : text;
  say(shown, JsonLine().text("error", text).integer("status", static_cast<int>(status)).str());
}

std::string Output::painted(const std::string& text, Paint paint) const {
  if (!colour_ || paint == Paint::Plain) return text;
  return escapeOf(paint) + text + kReset;
}

}  // namespace tcpcom
