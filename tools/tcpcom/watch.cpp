// tcpcom watch: what arrives.

#include <algorithm>
#include <memory>

#include "command_line.h"
#include "json_text.h"
#include "session.h"
#include "viewers.h"

namespace tcpcom {
namespace {

struct WatchOptions {
  std::string peer;
  std::vector<std::string> filters;
  std::string plot;
  bool rate = false;
  long count = 0;
};

struct Filter {
  std::string path;
  std::string value;

  bool passes(const Json::Value& message) const {
    const Json::Value* member = memberAt(message, path);
    if (member == nullptr) return false;
    if (plainText(*member) == value) return true;
    const auto number = parseJson(value);  // 1.50 is 1.5
    return number && number->isNumeric() && member->type() == Json::realValue &&
           number->asDouble() == member->asDouble();
  }
};

std::vector<Filter> parseFilters(const std::vector<std::string>& texts) {
  std::vector<Filter> filters;
  for (const std::string& text : texts) {
    const auto equals = text.find('=');
    if (equals == 0 || equals == std::string::npos) {
      throw Failure(Status::Usage, "\"" + text + "\" is no KEY=VALUE");
    }
    filters.push_back({text.substr(0, equals), text.substr(equals + 1)});
  }
  return filters;
}

std::unique_ptr<Viewer> makeViewer(const Output& out, const WatchOptions& options) {
  if (options.rate) return std::make_unique<Rater>(out);
  if (!options.plot.empty()) return std::make_unique<Plotter>(out, options.plot);
  return std::make_unique<Lister>(out);
}

class Watch {
 public:
  Watch(const Run& run, const WatchOptions& options)
      : filters_(parseFilters(options.filters)),
        options_(options),
        viewer_(makeViewer(run.out, options)),
        session_(run, parsePeer(options.peer)) {}

  Status run() {
    Wake wake = Wake::Ready;
    try {
      wake = loop();
    } catch (const Failure&) {
      viewer_->finish();
      throw;
    }
    if (wake != Wake::OutputClosed) viewer_->finish();
    const bool missing = seen_ == 0 || (options_.count > 0 && seen_ < options_.count);
    if (wake == Wake::RunOver && missing) {
      throw Failure(Status::TimedOut, seen_ == 0 ? session_.name() + " sent no such message"
                                                 : "fewer messages came than were awaited");
    }
    return endedBy(wake, Status::Done);
  }

 private:
  Wake loop() {
    while (options_.count == 0 || seen_ < options_.count) {
      Message message;
      const Wake wake = session_.next(message, viewer_->due());
      if (wake == Wake::Ready) {
        if (passes(message) && viewer_->show(message)) ++seen_;
      } else if (wake != Wake::TimedOut) {
        return wake;
      }
      if (Clock::now() >= viewer_->due()) viewer_->tick();
    }
    return Wake::TimedOut;
  }

  bool passes(const Message& message) const {
    if (filters_.empty()) return true;
    const auto value = parseJson(message.text);
    return value && std::all_of(filters_.begin(), filters_.end(),
                                [&](const Filter& filter) { return filter.passes(*value); });
  }

  const std::vector<Filter> filters_;
  const WatchOptions& options_;
  const std::unique_ptr<Viewer> viewer_;
  Session session_;
  long seen_ = 0;
};

}  // namespace

void addWatch(CommandLine& line) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App& command =
      line.addCommand({"watch", "Prints what arrives: time, size, text.",
                       "With -W its end is no failure if any message came.\n",
                       "  tcpcom watch 192.168.10.2:8055 --filter command=state --raw -C 10\n"
                       "  tcpcom watch 127.0.0.1:8055 --rate\n"
                       "  tcpcom watch 127.0.0.1:8055 --plot joints_deg.0\n"},
                      [options](const Run& run) { return Watch(run, *options).run(); });
  addPeer(command, options->peer);
  command
      .add_option("--filter", options->filters,
                  "only messages with that value; KEY may be a path as a.b or a.0; all must match")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
  auto* rate = command.add_flag("--rate", options->rate,
                                "messages a second and jitter, once a second; the jitter is the "
                                "standard deviation of the time from message to message");
  command
      .add_option("--plot", options->plot,
                  "a live chart of that number; messages without it do not count")
      ->type_name("KEY.PATH")
      ->excludes(rate);
  addCount(command, options->count, "messages to await, default: until interrupted");
}

}  // namespace tcpcom
