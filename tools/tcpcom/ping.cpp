// tcpcom ping: heartbeats as round trips.

#include <memory>

#include "command_line.h"
#include "exchange.h"
#include "json_text.h"
#include "statistics.h"
#include "text_format.h"

namespace tcpcom {
namespace {

constexpr char kHeartbeat[] = "heartbeat";

struct PingOptions {
  std::string peer;
  long count = 0;
  double intervalS = 1;
};

class Ping {
 public:
  Ping(const Run& run, const PingOptions& options)
      : run_(run), options_(options), session_(run, parsePeer(options.peer)), exchange_(session_) {}

  Status run() {
    Wake wake = Wake::Ready;
    try {
      wake = loop();
    } catch (const Failure&) {
      summary();
      throw;
    }
    summary();
    const Status status = endedBy(wake, Status::Done);
    if (status == Status::Done && rounds_.count() == 0) {
      throw Failure(Status::TimedOut, session_.name() + " answered no heartbeat");
    }
    return status;
  }

 private:
  /// @return what ended it; TimedOut after the last heartbeat
  Wake loop() {
    TimePoint due = Clock::now();
    for (long seq = 1; options_.count == 0 || seq <= options_.count; ++seq) {
      if (const Wake wake = exchange_.idle(due); wake != Wake::TimedOut) return wake;
      due = after(options_.intervalS, due);
      ++sent_;
      Reply reply;
      const Wake wake =
          exchange_.ask(kHeartbeat, heartbeatText(), after(run_.settings.replyTimeoutS), reply);
      if (wake == Wake::Ready) {
        report(seq, reply);
      } else if (wake == Wake::TimedOut) {
        run_.out.note("no reply to heartbeat " + std::to_string(seq),
                      JsonLine().text("note", "no reply").integer("seq", seq).str());
      } else {
        return wake;
      }
    }
    return Wake::TimedOut;
  }

  void report(long seq, const Reply& reply) {
    rounds_.add(reply.ms);
    if (run_.out.raw()) {
      run_.out.line(reply.text);
    } else if (run_.out.json()) {
      run_.out.line(JsonLine()
                        .integer("seq", seq)
                        .integer("bytes", static_cast<std::int64_t>(reply.text.size()))
                        .number("ms", reply.ms)
                        .str());
    } else {
      run_.out.line(std::to_string(reply.text.size()) + " bytes from " + session_.name() +
                    ": seq=" + std::to_string(seq) + " time=" + fixed(reply.ms, 3) + " ms");
    }
  }

  void summary() const {
    if (run_.out.raw() || sent_ == 0) return;
    const auto answered = static_cast<std::int64_t>(rounds_.count());
    if (run_.out.json()) {
      run_.out.line(JsonLine()
                        .integer("sent", sent_)
                        .integer("answered", answered)
                        .number("minMs", rounds_.min())
                        .number("meanMs", rounds_.mean())
                        .number("p99Ms", rounds_.percentile(99))
                        .number("maxMs", rounds_.max())
                        .str());
      return;
    }
    const double lost = 100 * static_cast<double>(sent_ - answered) / static_cast<double>(sent_);
    run_.out.line(std::to_string(sent_) + " sent, " + std::to_string(answered) + " answered, " +
                  fixed(lost, 1) + " % lost");
    if (answered == 0) return;
    run_.out.line("round trip min/mean/p99/max = " + fixed(rounds_.min(), 3) + "/" +
                  fixed(rounds_.mean(), 3) + "/" + fixed(rounds_.percentile(99), 3) + "/" +
                  fixed(rounds_.max(), 3) + " ms");
  }

  const Run& run_;
  const PingOptions& options_;
  Session session_;
  Exchange exchange_;
  Statistics rounds_;
  std::int64_t sent_ = 0;
};

}  // namespace

void addPing(CommandLine& line) {
  auto options = std::make_shared<PingOptions>();
  CLI::App& command =
      line.addCommand({"ping", "Connects, and measures heartbeats as round trips.", "",
                       "  tcpcom ping 192.168.10.2:8055\n"
                       "  tcpcom ping 127.0.0.1:8056 -C 100 -i 0.01 --json\n"},
                      [options](const Run& run) { return Ping(run, *options).run(); });
  addPeer(command, options->peer);
  addCount(command, options->count, "heartbeats to send, default: until interrupted");
  addSeconds(command, "-i,--interval", options->intervalS,
             "from one heartbeat to the next, default 1");
}

}  // namespace tcpcom
