// tcpcom record: a session with its timing into a file.

#include <algorithm>
#include <memory>
#include <optional>

#include "command_line.h"
#include "output_file.h"
#include "recording.h"
#include "session.h"
#include "text_format.h"

namespace tcpcom {
namespace {

struct RecordOptions {
  std::string peer;
  std::string file;
  long count = 0;
};

class RecordSink {
 public:
  RecordSink(const Run& run, const std::string& path) : out_(run.out) {
    if (path != "-") file_.emplace(run, path);
  }

  void line(const std::string& text) const {
    if (!file_) return out_.line(text);
    file_->write(text + '\n');
  }

 private:
  const Output& out_;
  std::optional<OutputFile> file_;
};

Status record(const Run& run, const RecordOptions& options) {
  Session session(run, parsePeer(options.peer));
  const TimePoint start = Clock::now();
  const RecordSink file(run, options.file);
  file.line(recordingHeader(session.name(), wallTimeS(start)));
  long seen = 0;
  Wake wake = Wake::TimedOut;
  try {
    Message message;
    while ((options.count == 0 || seen < options.count) &&
           (wake = session.next(message, kNever)) == Wake::Ready) {
      file.line(recordingLine({secondsBetween(start, message.at), message.text}));
      ++seen;
    }
  } catch (const Failure& failure) {
    if (failure.status() == Status::LinkLost) {
      run.out.note(std::to_string(seen) + " messages recorded");
    }
    throw;
  }
  run.out.note(std::to_string(seen) + " messages recorded");
  if (wake == Wake::RunOver && seen < std::max(options.count, 1L)) {
    throw Failure(Status::TimedOut, "fewer messages came than were awaited");
  }
  return endedBy(wake, Status::Done);
}

}  // namespace

void addRecord(CommandLine& line) {
  auto options = std::make_shared<RecordOptions>();
  CLI::App& command = line.addCommand(
      {"record", "Writes what arrives, with its timing, to a file, which replay plays back.",
       "The file holds a JSON object a line. An existing one is replaced. With -W its end is no\n"
       "failure if any message came.\n",
       "  tcpcom record 192.168.10.2:8055 session.jsonl -W 60\n"
       "  tcpcom record 127.0.0.1:8055 - -C 100 | gzip > session.jsonl.gz\n"},
      [options](const Run& run) { return record(run, *options); });
  addPeer(command, options->peer);
  command.add_option("FILE", options->file, "where to; - is standard output")
      ->required()
      ->type_name("");
  addCount(command, options->count, "messages to record, default: until interrupted");
}

}  // namespace tcpcom
