#include "run_main.h"

#include <exception>
#include <iostream>

#include "log_lines.h"

namespace arm {

int runMain(int argc, char** argv, const MainProgram& program) {
  try {
    CLI::App app{program.description};
    bool verbose = false;
    program.describe(app);
    app.add_flag("--verbose", verbose, "show all log lines of the library");
    CLI11_PARSE(app, argc, argv);

    showLogLines(verbose ? LogShow::All : LogShow::Errors);
    const SignalWatch signals;
    return program.run(signals, verbose);
  } catch (const std::exception& error) {
    std::cerr << program.name << ": " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace arm
