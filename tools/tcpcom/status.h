// What the tool's exit statuses mean; the numbers are promised to scripts.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

namespace tcpcom {

enum class Status {
  Done = 0,
  Other = 1,
  Usage = 2,
  NoConnection = 3,
  TimedOut = 4,
  LinkLost = 5,
  OtherCode = 6,
  CannotListen = 7,
  Interrupted = 130,
};

struct StatusRow {
  Status status;
  const char* meaning;
};

/// As help, manual page and documentation show them.
inline constexpr StatusRow kStatusRows[] = {
    {Status::Done, "done; also when the reader of standard output has gone"},
    {Status::Other, "another failure"},
    {Status::Usage, "usage: an option, an address, a JSON text or a file is not as it must be"},
    {Status::NoConnection, "no connection"},
    {Status::TimedOut, "time-out: what was awaited did not come"},
    {Status::LinkLost, "the link was lost"},
    {Status::OtherCode, "the server answered with another code than 1"},
    {Status::CannotListen, "cannot listen on the port"},
    {Status::Interrupted, "interrupted by SIGINT, SIGTERM or SIGHUP"},
};

/// @return what an errno value means
inline std::string errorText(int code) {
  return std::system_category().message(code);
}

/// Ends the run with a status; an empty text is not shown.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string& text) : std::runtime_error(text), status_(status) {}
  Status status() const { return status_; }

 private:
  Status status_;
};

}  // namespace tcpcom
