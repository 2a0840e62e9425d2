// tcpcom send: texts, framed.

#include <unistd.h>

#include <memory>

#include "command_line.h"
#include "input.h"
#include "session.h"

namespace tcpcom {
namespace {

struct SendOptions {
  std::string peer;
  std::string text;
  double lingerS = 0.1;
};

void sendLines(const Run& run, Session& session) {
  LineCutter lines;
  long count = 0;
  for (bool more = true; more;) {
    bool readable = false;
    const Wake wake = session.awaitOr(STDIN_FILENO, readable, kNever);
    if (wake != Wake::Ready) failAwaiting(wake, "standard input does not end");
    session.checkLink();
    session.dropReceived();
    if (!readable) continue;
    more = lines.readFrom(STDIN_FILENO);
    while (const auto line = lines.next()) {
      session.send(*line);
      ++count;
    }
  }
  run.out.detail(std::to_string(count) + " texts sent");
}

Status send(const Run& run, const SendOptions& options) {
  Session session(run, parsePeer(options.peer));
  if (options.text == "-") {
    sendLines(run, session);
  } else {
    session.send(options.text);
  }
  session.finishSending(options.lingerS);
  return Status::Done;
}

}  // namespace

void addSend(CommandLine& line) {
  auto options = std::make_shared<SendOptions>();
  CLI::App& command =
      line.addCommand({"send", "Sends a text, or each line of standard input, framed.",
                       "Ends when the peer's machine has acknowledged all of it.\n",
                       "  tcpcom send 127.0.0.1:8055 '{\"command\":\"stop\"}'\n"
                       "  tcpcom send 127.0.0.1:8055 - < commands.jsonl\n"},
                      [options](const Run& run) { return send(run, *options); });
  addPeer(command, options->peer);
  command.add_option("TEXT", options->text, "the text; - reads standard input")
      ->required()
      ->type_name("");
  addSeconds(command, "--linger", options->lingerS,
             "keeps the link that long after the last text, default 0.1");
}

}  // namespace tcpcom
