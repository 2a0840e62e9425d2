// tcpcom bench: request latency and broadcast jitter against a live peer.

#include <memory>
#include <optional>

#include "command_envelope.h"
#include "command_line.h"
#include "exchange.h"
#include "histogram.h"
#include "json_text.h"
#include "output_file.h"
#include "request_text.h"
#include "statistics.h"
#include "text_format.h"

namespace tcpcom {
namespace {

constexpr std::size_t kNameWidth = 12, kColumnWidth = 11;

struct BenchOptions {
  std::string peer;
  std::string command = brix::envelope::kHeartbeatCommand;
  std::string members;
  std::string svg;
  long count = 1000;
  double intervalS = 0;
};

class Bench {
 public:
  Bench(const Run& run, const BenchOptions& options)
      : run_(run),
        options_(options),
        request_(requestText(options.command, membersText(run, options.members))),
        session_(run, parsePeer(options.peer)),
        exchange_(session_, [this](const Message& message) { onBroadcast(message); }) {
    if (!options.svg.empty()) svg_.emplace(run, options.svg);  // now, before it is measured long
  }

  Status run() {
    Wake wake = Wake::Ready;
    try {
      wake = options_.count > 0 ? ask() : exchange_.idle(kNever);
    } catch (const Failure&) {
      report();
      throw;
    }
    if (wake != Wake::OutputClosed) report();
    const Status status = endedBy(wake, Status::Done);
    const Statistics& awaited = options_.count > 0 ? latenciesMs_ : periodsMs_;
    if (status == Status::Done && wake != Wake::OutputClosed && awaited.count() == 0) {
      throw Failure(Status::TimedOut,
                    session_.name() + (options_.count > 0 ? " answered no request"
                                                          : " sent fewer than two broadcasts"));
    }
    return status;
  }

 private:
  Wake ask() {
    TimePoint due = Clock::now();
    for (long i = 0; i < options_.count; ++i) {
      if (const Wake wake = exchange_.idle(due); wake != Wake::TimedOut) return wake;
      due = after(options_.intervalS, due);
      Reply reply;
      const Wake wake =
          exchange_.ask(options_.command, request_, after(run_.settings.replyTimeoutS), reply);
      if (wake == Wake::Ready) {
        latenciesMs_.add(reply.ms);
      } else if (wake == Wake::TimedOut) {
        ++lost_;
      } else {
        return wake;
      }
    }
    return Wake::TimedOut;
  }

  void onBroadcast(const Message& message) {
    if (last_ != TimePoint()) periodsMs_.add(secondsBetween(last_, message.at) * 1000);
    last_ = message.at;
  }

  void report() const {
    if (!run_.out.json()) {
      std::string head = padded("ms", kNameWidth);
      for (const char* name : {"count", "min", "mean", "median", "p99", "max", "jitter"}) {
        head += padded(name, kColumnWidth);
      }
      run_.out.line(run_.out.painted(head, Paint::Bold));
    }
    row("request", latenciesMs_);
    row("broadcast", periodsMs_);
    if (lost_ > 0) run_.out.note(std::to_string(lost_) + " requests were not answered in time");
    if (svg_) writeSvg();
  }

  void row(const std::string& name, const Statistics& values) const {
    const auto count = static_cast<std::int64_t>(values.count());
    const std::vector<std::pair<const char*, double>> figures{{"minMs", values.min()},
                                                              {"meanMs", values.mean()},
                                                              {"medianMs", values.percentile(50)},
                                                              {"p99Ms", values.percentile(99)},
                                                              {"maxMs", values.max()},
                                                              {"jitterMs", values.deviation()}};
    if (run_.out.json()) {
      JsonLine line;
      line.text("measured", name).integer("count", count);
      for (const auto& [key, value] : figures) line.number(key, value);
      return run_.out.line(line.str());
    }
    std::string text = padded(name, kNameWidth) + padded(std::to_string(count), kColumnWidth);
    for (const auto& [key, value] : figures) text += padded(fixed(value, 3), kColumnWidth);
    run_.out.line(text);
  }

  void writeSvg() const {
    svg_->write(drawHistograms(
        {{"Requests \"" + options_.command + "\" to " + session_.name() + ", round trip",
          &latenciesMs_},
         {"Broadcasts from " + session_.name() + ", from one to the next", &periodsMs_}}));
  }

  const Run& run_;
  const BenchOptions& options_;
  const std::string request_;
  Session session_;
  Exchange exchange_;
  std::optional<OutputFile> svg_;
  Statistics latenciesMs_, periodsMs_;
  TimePoint last_;
  long lost_ = 0;
};

}  // namespace

void addBench(CommandLine& line) {
  auto options = std::make_shared<BenchOptions>();
  CLI::App& command = line.addCommand(
      {"bench", "Measures the latency of requests, and how evenly broadcasts come.",
       "One request follows the other. Each message that is no reply counts as a broadcast; the\n"
       "jitter is the standard deviation.\n",
       "  tcpcom bench 192.168.10.2:8055\n"
       "  tcpcom bench 127.0.0.1:8056 get_state -C 5000 --svg latency.svg\n"
       "  tcpcom bench 127.0.0.1:8055 -C 0 -W 30 --json\n"},
      [options](const Run& run) { return Bench(run, *options).run(); });
  addPeer(command, options->peer);
  command.add_option("CMD", options->command, "the command to ask, default heartbeat")
      ->type_name("");
  command.add_option("JSON", options->members, "the request's other members, as of request")
      ->type_name("");
  addCount(command, options->count,
           "requests to send, default 1000; 0: only listens, until -W or an interrupt");
  addSeconds(command, "-i,--interval", options->intervalS,
             "from one request to the next, default 0: as soon as it is answered");
  command
      .add_option("--svg", options->svg,
                  "also draws histograms into that file; the tool draws them itself")
      ->type_name("FILE");
}

}  // namespace tcpcom
