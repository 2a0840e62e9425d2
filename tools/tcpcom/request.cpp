// tcpcom request: one command and its reply.

#include <memory>

#include "command_envelope.h"
#include "command_line.h"
#include "exchange.h"
#include "json_text.h"
#include "request_text.h"
#include "text_format.h"

namespace tcpcom {
namespace {

namespace envelope = brix::envelope;

struct RequestOptions {
  std::string peer;
  std::string command;
  std::string members;
};

void show(const Output& out, const Reply& reply) {
  if (out.raw()) return out.line(reply.text);
  if (!out.json()) return out.line(printable(exactLine(reply.text).value_or(reply.text)));
  out.line(JsonLine().number("ms", reply.ms).message(reply.text).str());
}

/// A reply without "code", as from a peer that has no envelope, is an answer like any other.
Status statusOf(const Reply& reply) {
  const Json::Value& code = reply.value[envelope::kCodeKey];
  const bool handled = code.isNull() || (code.isInt() && code.asInt() == envelope::kCodeHandled);
  return handled ? Status::Done : Status::OtherCode;
}

Status request(const Run& run, const RequestOptions& options) {
  const Address peer = parsePeer(options.peer);
  const std::string text = requestText(options.command, membersText(run, options.members));
  Session session(run, peer);
  Reply reply;
  std::optional<Reply> rejection;
  const Wake wake = Exchange(session).ask(options.command, text, after(run.settings.replyTimeoutS),
                                          reply, &rejection);
  if (wake != Wake::Ready) {
    // It names nobody, so it counts only when no reply with our name came.
    if (!rejection || (wake != Wake::TimedOut && wake != Wake::RunOver)) {
      failAwaiting(wake, session.name() + " did not answer \"" + options.command + "\" in time");
    }
    reply = std::move(*rejection);
  }
  show(run.out, reply);
  run.out.detail("answered after " + fixed(reply.ms, 3) + " ms");
  const Status status = statusOf(reply);
  if (status != Status::Done) {
    const Json::Value& msg = reply.value[envelope::kMsgKey];
    throw Failure(status, "the server answered with code " +
                              compactJson(reply.value[envelope::kCodeKey]) +
                              (msg.isNull() ? "" : ": " + plainText(msg)));
  }
  return status;
}

}  // namespace

void addRequest(CommandLine& line) {
  auto options = std::make_shared<RequestOptions>();
  CLI::App& command = line.addCommand(
      {"request", "Sends {\"command\":CMD, ...} and prints the reply with that \"command\".",
       "The exit status tells the reply's \"code\": 0 for 1 or none, 6 for any other. Replies go "
       "to\n"
       "every client, so a rejection that names no command (\"unknow\") counts only if nothing "
       "else\n"
       "comes in time.\n",
       "  tcpcom request 127.0.0.1:8056 get_state\n"
       "  tcpcom request 127.0.0.1:8056 move_joints '{\"joints_deg\":[0,0,0,0,0,0]}'\n"
       "  echo '{\"id\":7}' | tcpcom request 127.0.0.1:8056 stop - --raw\n"},
      [options](const Run& run) { return request(run, *options); });
  addPeer(command, options->peer);
  command.add_option("CMD", options->command, "the command's name")->required()->type_name("");
  command
      .add_option("JSON", options->members,
                  "an object with the request's other members; @FILE reads it from a file, - from "
                  "standard input")
      ->type_name("");
}

}  // namespace tcpcom
