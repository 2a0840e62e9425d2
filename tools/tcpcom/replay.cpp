// tcpcom replay: a server that plays a recording back.

#include <algorithm>
#include <memory>

#include "command_line.h"
#include "link.h"
#include "listener.h"
#include "message_framing.h"
#include "recording.h"

namespace tcpcom {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} * 1024;
constexpr std::size_t kMostWaitingBytes = std::size_t{256} * 1024;

struct ReplayOptions {
  std::string address;
  std::string file;
  double speed = 1;
  long count = 0;
};

/// One client, to which the recording is played from its beginning.
class Player {
 public:
  Player(Descriptor client, const std::vector<RecordedMessage>& messages, double speed)
      : messages_(messages), speed_(speed), link_(std::move(client)) {}

  pollfd entry() const { return {open_ ? link_.fd() : -1, link_.wants(), 0}; }

  TimePoint due() const { return mayPlay() ? dueOf(next_) : kNever; }

  void handle(short revents) {
    if ((revents & POLLOUT) != 0) open_ = link_.flush() && open_;
    std::string ignored;  // what a client says changes nothing
    if ((revents & ~POLLOUT) != 0) open_ = link_.read(ignored, kReadBytes) && open_;
    while (mayPlay() && dueOf(next_) <= Clock::now()) {
      open_ = link_.send(messages_[next_++].text + brix::kDelimiter);
    }
    if (open_ && played() && !ending_) {
      link_.endSending();
      ending_ = true;
    }
  }

  /// @return whether the client has got all of it
  bool played() const { return next_ == messages_.size() && link_.waiting() == 0; }

  /// A client that has got all is left when it has closed: what it says until then must not spoil
  /// what is on its way.
  bool over() const { return !open_; }

 private:
  bool mayPlay() const {
    return open_ && next_ < messages_.size() && link_.waiting() < kMostWaitingBytes;
  }

  TimePoint dueOf(std::size_t index) const {
    return speed_ > 0 ? after(messages_[index].atS / speed_, start_) : start_;
  }

  const std::vector<RecordedMessage>& messages_;
  const double speed_;
  const TimePoint start_ = Clock::now();
  Link link_;
  std::size_t next_ = 0;
  bool open_ = true;
  bool ending_ = false;
};

class Replay {
 public:
  Replay(const Run& run, const ReplayOptions& options)
      : run_(run),
        options_(options),
        messages_(loadRecording(run, options.file)),
        listener_(run, parseListening(options.address)) {}

  Status run() {
    while (options_.count == 0 || played_ < options_.count) {
      std::vector<pollfd> entries{{listener_.fd(), POLLIN, 0}};
      TimePoint due = kNever;
      for (const auto& player : players_) {
        entries.push_back(player->entry());
        due = std::min(due, player->due());
      }
      const Wake wake = run_.waiter.wait(entries, due);
      if (wake != Wake::Ready && wake != Wake::TimedOut) return ended(wake);
      handle(entries);
    }
    return Status::Done;
  }

 private:
  void handle(const std::vector<pollfd>& entries) {
    for (std::size_t i = 0; i < players_.size(); ++i) {
      players_[i]->handle(entries[i + 1].revents);
      if (!players_[i]->over()) continue;
      if (players_[i]->played()) ++played_;
      run_.out.detail(players_[i]->played() ? "played to its end" : "a client left before the end");
      players_[i].reset();
    }
    players_.erase(std::remove(players_.begin(), players_.end(), nullptr), players_.end());
    if (entries[0].revents == 0) return;
    if (Descriptor client = listener_.accept(); client) {
      players_.push_back(std::make_unique<Player>(std::move(client), messages_, options_.speed));
    }
  }

  Status ended(Wake wake) const {
    if (wake == Wake::RunOver && played_ < options_.count) {
      throw Failure(Status::TimedOut, "fewer clients came than were awaited");
    }
    return endedBy(wake, Status::Done);
  }

  const Run& run_;
  const ReplayOptions& options_;
  const std::vector<RecordedMessage> messages_;
  const Listener listener_;
  std::vector<std::unique_ptr<Player>> players_;
  long played_ = 0;
};

}  // namespace

void addReplay(CommandLine& line) {
  auto options = std::make_shared<ReplayOptions>();
  CLI::App& command = line.addCommand(
      {"replay", "A server that plays a recording to each client from its beginning.",
       "At its end it ends the client's link. The port is told on standard error. What clients "
       "send\n"
       "is read and ignored.\n",
       "  tcpcom replay 8055 session.jsonl\n"
       "  tcpcom replay 0 session.jsonl --speed 10 -C 1\n"},
      [options](const Run& run) { return Replay(run, *options).run(); });
  addListening(command, options->address);
  command.add_option("FILE", options->file, "what record has written")->required()->type_name("");
  command
      .add_option("--speed", options->speed,
                  "so many times the recorded pace, default 1; 0: without pauses")
      ->type_name("N")
      ->check(notNegative());
  addCount(command, options->count, "ends when so many clients got all, default: when interrupted");
}

}  // namespace tcpcom
