#include "command_line.h"

#include <cmath>
#include <memory>
#include <sstream>
#include <utility>

namespace tcpcom {
namespace {

constexpr char kCommon[] = "Common options";
constexpr std::size_t kNameColumns = 30, kTextColumns = 66;
constexpr long kMostCounted = 1000000000;

std::string statusTable() {
  std::string table = "Exit status:\n";
  for (const StatusRow& row : kStatusRows) {
    const std::string number = std::to_string(static_cast<int>(row.status));
    table += "  " + number + std::string(5 - number.size(), ' ') + row.meaning + '\n';
  }
  table.pop_back();
  return table;
}

/// Options as "--name VALUE", without the limits that their errors tell, in lines that fit.
class Formatter : public CLI::Formatter {
 public:
  Formatter() { column_width(kNameColumns); }

  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return type.empty() ? type : " " + type;
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    std::istringstream words(option->get_description());
    std::string text;
    std::size_t column = 0;
    for (std::string word; words >> word; column += word.size() + 1) {
      if (column + word.size() > kTextColumns) {
        text += '\n';
        column = 0;
      } else if (!text.empty()) {
        text += ' ';
      }
      text += word;
    }
    return text;
  }
};

}  // namespace

CLI::Validator wholeNumber(long least, long most) {
  return CLI::Validator(
      [least, most](std::string& text) {
        long value = 0;
        const bool good = CLI::detail::lexical_cast(text, value) && value >= least && value <= most;
        return good ? std::string()
                    : "\"" + text + "\" is no whole number from " + std::to_string(least) + " to " +
                          std::to_string(most);
      },
      "");
}

CLI::Validator notNegative() {
  return CLI::Validator(
      [](std::string& text) {
        double value = 0;
        const bool good =
            CLI::detail::lexical_cast(text, value) && std::isfinite(value) && value >= 0;
        return good ? std::string() : "\"" + text + "\" is no number from 0 up";
      },
      "");
}

CommandLine::CommandLine()
    : app_("Talks to robot-arm controllers, and to every other peer whose messages end with CR LF.",
           "tcpcom") {
  app_.require_subcommand(1);
  app_.set_version_flag("--version", "tcpcom " TCPCOM_VERSION);
  app_.formatter(std::make_shared<Formatter>());  // the subcommands inherit it
  app_.footer(statusTable());
  addCommonOptions(app_);
}

// Each subcommand has them itself, so that they may stand anywhere, and its help shows them.
void CommandLine::addCommonOptions(CLI::App& app) {
  app.add_flag("--json", settings_.json,
               "one JSON object a line, also for errors and notes on standard error")
      ->group(kCommon);
  app.add_flag("--raw", settings_.raw, "payload only, byte by byte as it came; not with --json")
      ->group(kCommon);
  app.add_flag("-q,--quiet", settings_.quiet, "no notes on standard error; errors stay")
      ->group(kCommon);
  app.add_flag("-v,--verbose", settings_.verbose, "more notes on standard error")->group(kCommon);
  addSeconds(app, "-W,--wait", settings_.runS, "ends the whole run after that time; 0: never")
      ->group(kCommon);
  addSeconds(app, "--connect-timeout", settings_.connectTimeoutS,
             "longest wait for a connection, default 3")
      ->group(kCommon);
  addSeconds(app, "--reply-timeout", settings_.replyTimeoutS,
             "longest wait for a reply, or for a peer that does not read, default 3")
      ->group(kCommon);
  app.add_option("--retry", settings_.retries,
                 "connects up to COUNT more times, half a second apart")
      ->type_name("COUNT")
      ->check(wholeNumber(0, kMostCounted))
      ->group(kCommon);
}

CLI::App& CommandLine::addCommand(const Words& words, Body body) {
  commands_.push_back(words);
  CLI::App& command = *app_.add_subcommand(words.name, words.summary);
  command.footer((words.details.empty() ? "" : words.details + '\n') + "Examples:\n" +
                 words.examples + '\n' + statusTable());
  command.callback([this, body = std::move(body)] { body_ = body; });
  addCommonOptions(command);
  return command;
}

CLI::Option* addPeer(CLI::App& app, std::string& peer) {
  return app.add_option("PEER", peer, "the peer's HOST:PORT")->required()->type_name("");
}

CLI::Option* addListening(CLI::App& app, std::string& address) {
  return app
      .add_option("ADDRESS", address,
                  "[HOST:]PORT to listen on; without HOST 127.0.0.1, with PORT 0 one that is free")
      ->required()
      ->type_name("");
}

CLI::Option* addSeconds(CLI::App& app, const std::string& name, double& seconds,
                        const std::string& description) {
  return app.add_option(name, seconds, description)->type_name("SECONDS")->check(notNegative());
}

CLI::Option* addCount(CLI::App& app, long& count, const std::string& description) {
  return app.add_option("-C,--count", count, description)
      ->type_name("COUNT")
      ->check(wholeNumber(0, kMostCounted));
}

}  // namespace tcpcom
