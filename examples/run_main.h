/// @file
/// What the main functions of the demo have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "signals.h"

namespace arm {

/// One program of the demo.
struct MainProgram {
  std::string name;
  std::string description;
  std::function<void(CLI::App&)> describe;  ///< adds the options, beside --help and --verbose
  std::function<int(const SignalWatch&, bool verbose)> run;  ///< @return the exit status
};

/// Reads the command line and runs the program, with its log lines and signals set up. What it
/// throws is shown in one line under the program's name.
/// @return the exit status: that of `run`, 1 after an exception, or that of the command line's
/// reader
int runMain(int argc, char** argv, const MainProgram& program);

}  // namespace arm
