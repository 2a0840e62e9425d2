// tcpcom: the command line wired to its subcommands.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>

#include "command_line.h"
#include "manual.h"

namespace tcpcom {
namespace {

int finish(const Output& out, Status status, const std::string& text) {
  if (!text.empty()) out.error(status, text);
  return static_cast<int>(status);
}

// A socket on the number of a closed standard stream would get what is meant for that.
void holdStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // Of the wrong direction, so that using it stays the error that it is.
    [[maybe_unused]] const int held = open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

int run(const Settings& settings, const CommandLine::Body& body) {
  const Run context(settings);
  try {
    if (settings.raw && settings.json) {  // one may stand before the subcommand
      throw Failure(Status::Usage, "--json excludes --raw");
    }
    return finish(context.out, body(context), "");
  } catch (const Failure& failure) {
    return finish(context.out, failure.status(), failure.what());
  } catch (const std::exception& exception) {
    return finish(context.out, Status::Other, exception.what());
  }
}

/// What the command line asks for instead of a run, or why it cannot be understood.
int explain(CommandLine& line, const CLI::ParseError& error, bool json) {
  Settings settings;
  settings.json = json;
  return run(settings, [&](const Run& context) {
    if (error.get_exit_code() != 0) {
      throw Failure(Status::Usage,
                    std::string(error.what()) + (json ? "" : "; --help shows the usage"));
    }
    std::ostringstream text;
    line.app().exit(error, text, text);
    context.out.write(text.str());
    return Status::Done;
  });
}

int main(int argc, char** argv) {
  holdStandardStreams();
  CommandLine line;
  for (const auto add : {addPing, addRequest, addSend, addWatch, addRecord, addReplay, addServe,
                         addBench, addDoctor}) {
    add(line);
  }
  addManualOptions(line);
  try {
    line.app().parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool json = std::any_of(
        argv, argv + argc, [](const char* word) { return std::strcmp(word, "--json") == 0; });
    return explain(line, error, json);
  }
  return run(line.settings(), line.body());
}

}  // namespace
}  // namespace tcpcom

int main(int argc, char** argv) {
  try {
    return tcpcom::main(argc, argv);
  } catch (const std::exception& exception) {
    std::cerr << "tcpcom: " << exception.what() << '\n';
    return static_cast<int>(tcpcom::Status::Other);
  }
}
