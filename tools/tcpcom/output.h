// What the tool says: payload on standard output, everything else on standard error.
#pragma once

#include <string>

#include "settings.h"
#include "status.h"
#include "waiter.h"

namespace tcpcom {

enum class Paint { Plain, Dim, Bold, Red, Green, Yellow };

/// Writes all of it, and waits where it is not taken until it is or the run ends.
/// @param name  of what is written, for errors
/// @throws Failure  if it cannot be written; with Done if its reader has gone
void writeAll(const Waiter& waiter, int fd, const std::string& name, const std::string& bytes);

class Output {
 public:
  Output(const Settings& settings, const Waiter& waiter);

  bool json() const { return settings_.json; }
  bool raw() const { return settings_.raw; }
  bool onTerminal() const { return terminal_; }

  /// Writes one line of payload. Where the output is not read, waits until it is or the run ends.
  /// @throws Failure  if it cannot be written; with Done if its reader has gone
  void line(const std::string& text) const { write(text + '\n'); }

  /// Writes payload as it stands.
  void write(const std::string& bytes) const;

  /// Tells the user something, unless quiet; not, if the run ends while standard error is not read.
  /// May be called from any thread, as the two below.
  /// @param json  the same as members of a JSON object, for --json; empty: {"note":text}
  void note(const std::string& text, const std::string& json = {}) const;

  /// As note(), but only when verbose.
  void detail(const std::string& text) const;

  /// Tells why the run failed, also when quiet.
  void error(Status status, const std::string& text) const;

  /// @return the text, coloured if standard output is a terminal that is to show colours
  std::string painted(const std::string& text, Paint paint) const;

 private:
  void say(const std::string& text, const std::string& json) const;

  const Settings& settings_;
  const Waiter& waiter_;
  const bool terminal_;
  const bool colour_;
  const bool errorColour_;
};

}  // namespace tcpcom
