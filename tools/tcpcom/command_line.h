// The command line: what all subcommands share, and each one's part.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "run.h"

namespace tcpcom {

/// What the user asked for.
class CommandLine {
 public:
  using Body = std::function<Status(const Run&)>;

  CommandLine();

  CLI::App& app() { return app_; }
  const Settings& settings() const { return settings_; }
  const Body& body() const { return body_; }

  /// What the help says of a subcommand.
  struct Words {
    const char* name;
    const char* summary;   ///< one line
    std::string details;   ///< lines, or empty
    const char* examples;  ///< lines, indented by two
  };

  CLI::App& addCommand(const Words& words, Body body);
  const std::vector<Words>& commands() const { return commands_; }

 private:
  void addCommonOptions(CLI::App& app);

  CLI::App app_;
  Settings settings_;
  Body body_;
  std::vector<Words> commands_;
};

/// @name Options that several subcommands have
/// @{
CLI::Option* addPeer(CLI::App& app, std::string& peer);
CLI::Option* addListening(CLI::App& app, std::string& address);
CLI::Option* addSeconds(CLI::App& app, const std::string& name, double& seconds,
                        const std::string& description);
CLI::Option* addCount(CLI::App& app, long& count, const std::string& description);
/// @}

/// Accepts finite numbers that are not negative.
CLI::Validator notNegative();

/// Accepts whole numbers within these limits.
CLI::Validator wholeNumber(long least, long most);

/// @name The subcommands
/// @{
void addPing(CommandLine& line);
void addRequest(CommandLine& line);
void addSend(CommandLine& line);
void addWatch(CommandLine& line);
void addRecord(CommandLine& line);
void addReplay(CommandLine& line);
void addServe(CommandLine& line);
void addBench(CommandLine& line);
void addDoctor(CommandLine& line);
/// @}

}  // namespace tcpcom
