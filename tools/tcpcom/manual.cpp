#include "manual.h"

#include <algorithm>
#include <sstream>

namespace tcpcom {
namespace {

constexpr char kHelp[] = "--help";

/// A text as the manual's macros take it.
std::string roff(const std::string& text) {
  std::string result;
  bool lineBegins = true;
  for (const char one : text) {
    if (lineBegins && (one == '.' || one == '\'')) result += "\\&";
    if (one == '-') result += '\\';
    result += one;
    if (one == '\\') result += 'e';
    lineBegins = one == '\n';
  }
  return result;
}

std::string asItStands(const std::string& text) {
  return ".nf\n" + roff(text) + ".fi\n";
}

std::string optionText(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  std::string names =
      option.get_positional() ? option.get_name(true) : option.get_name(false, true);
  for (auto comma = names.find(','); comma != std::string::npos;
       comma = names.find(',', comma + 2)) {
    names.insert(comma + 1, " ");
  }
  return ".TP\n.B " + roff(names) + (type.empty() ? "" : " \\fI" + roff(type) + "\\fP") + "\n" +
         roff(option.get_description()) + "\n";
}

/// The options of the application, in their order; --help aside, which all have.
std::vector<const CLI::Option*> optionsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) {
    return !option->get_group().empty() && !option->check_name(kHelp);
  });
}

bool isCommon(const CLI::App& root, const CLI::Option& option) {
  return !option.get_positional() && root.get_option_no_throw(option.get_name()) != nullptr;
}

std::string commandText(const CLI::App& root, const CommandLine::Words& words) {
  const CLI::App& command = *root.get_subcommand(words.name);
  std::string heading, options;
  for (const CLI::Option* option : optionsOf(command)) {
    if (isCommon(root, *option)) continue;
    options += optionText(*option);
    if (!option->get_positional()) continue;
    const std::string name = option->get_name(true);
    heading += option->get_required() ? " " + name : " [" + name + "]";
  }
  std::string text = ".SS " + std::string(words.name) + heading + "\n" + roff(words.summary) + "\n";
  text += options;
  if (!words.details.empty()) text += ".PP\n" + asItStands(words.details);
  return text + ".PP\nExamples:\n.PP\n" + asItStands(words.examples);
}

std::string manualPage(const CommandLine& line, const CLI::App& root) {
  std::string page = ".TH TCPCOM 1 \"\" \"tcpcom " TCPCOM_VERSION
                     "\" \"User Commands\"\n"
                     ".SH NAME\ntcpcom \\- talk to robot\\-arm controllers over TCP\n"
                     ".SH SYNOPSIS\n.B tcpcom\n.I subcommand\n[\\fIargument\\fP ...] "
                     "[\\fIoption\\fP ...]\n.SH DESCRIPTION\n";
  page += roff(root.get_description()) +
          "\nPayload goes to standard output, everything else to standard error. Options may stand "
          "anywhere. Colours are shown on a terminal only, and not if NO_COLOR is set.\n"
          ".SH SUBCOMMANDS\n";
  for (const auto& words : line.commands()) page += commandText(root, words);
  page += ".SH OPTIONS\nOf every subcommand:\n";
  for (const CLI::Option* option : optionsOf(root)) page += optionText(*option);
  page += ".SH EXIT STATUS\n";
  for (const StatusRow& row : kStatusRows) {
    page += ".TP\n.B " + std::to_string(static_cast<int>(row.status)) + "\n" + row.meaning + "\n";
  }
  return page + ".SH ENVIRONMENT\n.TP\n.B NO_COLOR\nif it is set and not empty, no colours";
}

/// The completion's cases for the options that take a value.
std::string valueCases(const CLI::App& app, std::vector<std::string>& done) {
  std::string cases;
  for (const CLI::Option* option : optionsOf(app)) {
    std::string names = option->get_name(false, true);
    std::string type = option->get_type_name();
    if (option->get_positional() || type.empty()) continue;
    if (std::find(done.begin(), done.end(), names) != done.end()) continue;
    done.push_back(names);
    std::replace(names.begin(), names.end(), ',', '|');
    const bool choice = type.find('|') != std::string::npos;
    if (type == "FILE") continue;  // completed by default
    std::replace(type.begin(), type.end(), '|', ' ');
    cases += "    " + names + ") " +
             (choice ? "COMPREPLY=($(compgen -W '" + type + "' -- \"$cur\")); "
                     : "compopt +o default; ") +
             "return ;;\n";
  }
  return cases;
}

std::string optionNames(const CLI::App& app) {
  std::string names = kHelp;
  for (const CLI::Option* option : optionsOf(app)) {
    if (!option->get_positional()) names += ' ' + option->get_name(false, true);
  }
  std::replace(names.begin(), names.end(), ',', ' ');
  return names;
}

std::string completion(const CommandLine& line, const CLI::App& root) {
  std::vector<std::string> done;
  std::string commands, values = valueCases(root, done), options;
  for (const auto& words : line.commands()) {
    const CLI::App& command = *root.get_subcommand(words.name);
    commands += (commands.empty() ? "" : " ") + std::string(words.name);
    values += valueCases(command, done);
    options += "    " + std::string(words.name) + ") words='" + optionNames(command) + "' ;;\n";
  }
  return "# bash completion for tcpcom\n"
         "_tcpcom() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} commands='" +
         commands +
         "' command= word words=\n"
         "  COMPREPLY=()\n"
         "  case ${COMP_WORDS[COMP_CWORD - 1]} in\n" +
         values +
         "  esac\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    [[ \" $commands \" != *\" $word \"* ]] || { command=$word; break; }\n"
         "  done\n"
         "  case $command in\n" +
         options + "    *) words=\"$commands " + optionNames(root) +
         "\" ;;\n"
         "  esac\n"
         "  [[ -n $command && $cur != -* ]] || COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "}\n"
         "complete -o default -F _tcpcom tcpcom";
}

}  // namespace

// As the version's flag does: a text instead of a run, without further conditions.
void addManualOptions(CommandLine& line) {
  line.app()
      .add_flag_callback("--generate-manual",
                         [&line] { throw CLI::CallForVersion(manualPage(line, line.app()), 0); })
      ->group("");
  line.app()
      .add_flag_callback("--generate-completion",
                         [&line] { throw CLI::CallForVersion(completion(line, line.app()), 0); })
      ->group("");
}

}  // namespace tcpcom
