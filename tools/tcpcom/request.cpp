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
  std::vector<std::string> match;
};

void show(const Output& out, const Reply& reply) {
  if (out.raw()) return out.line(reply.text);
  if (!out.json()) return out.line(printable(exactLine(reply.text).value_or(reply.text)));
  out.line(JsonLine().number("ms", reply.ms).message(reply.text).str());
}

/// @return the members that tell our reply from others'
Json::Value mustHold(const std::string& request, const std::vector<std::string>& keys) {
  const Json::Value sent = parseJson(request).value_or(Json::Value());
  Json::Value held(Json::objectValue);
  for (const std::string& key : keys) {
    if (!sent.isMember(key)) {
      throw Failure(Status::Usage, "the request holds no \"" + key + "\" to match");
    }
    held[key] = sent[key];
  }
  return held;
}

Status request(const Run& run, const RequestOptions& options) {
  const Address peer = parsePeer(options.peer);
  const std::string text = requestText(options.command, membersText(run, options.members));
  const Json::Value held = mustHold(text, options.match);
  Session session(run, peer);
  Reply reply;
  std::optional<Reply> rejection;
  const Wake wake = Exchange(session).ask(options.command, text, after(run.settings.replyTimeoutS),
                                          reply, held, &rejection);
  if (wake != Wake::Ready) {
    // It may be anybody's, so it counts only when no reply of ours came.
    if (!rejection || (wake != Wake::TimedOut && wake != Wake::RunOver)) {
      failAwaiting(wake, session.name() + " did not answer \"" + options.command + "\" in time");
    }
    reply = std::move(*rejection);
  }
  show(run.out, reply);
  run.out.detail("answered after " + fixed(reply.ms, 3) + " ms");
  if (!isHandled(reply.value)) {
    const Json::Value& msg = reply.value[envelope::kMsgKey];
    throw Failure(Status::OtherCode, "the server answered with code " +
                                         compactJson(reply.value[envelope::kCodeKey]) +
                                         (msg.isNull() ? "" : ": " + plainText(msg)));
  }
  return Status::Done;
}

}  // namespace

void addRequest(CommandLine& line) {
  auto options = std::make_shared<RequestOptions>();
  CLI::App& command = line.addCommand(
      {"request", "Sends {\"command\":CMD, ...} and prints the reply with that \"command\".",
       "The exit status tells the reply's \"code\": 0 for 1 or none, 6 for any other. Replies go "
       "to\n"
       "every client, so a rejection that does not tell whose it is (\"unknow\") counts only if\n"
       "nothing else comes in time.\n",
       "  tcpcom request 127.0.0.1:8056 get_state\n"
       "  tcpcom request 127.0.0.1:8056 get_state '{\"id\":7}' --match id\n"
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
  command
      .add_option("--match", options->match,
                  "takes only a reply that has the request's value of KEY, as an \"id\" that the "
                  "server echoes; may be given again")
      ->type_name("KEY")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
}

}  // namespace tcpcom
