// Clients of the soak test. Every message has a number, so that a lost, doubled or overtaken one
// shows.
#pragma once

#include <atomic>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "texts.h"
#include "two_clients.h"

namespace test {

constexpr int kFromServer = -1, kFromRaw = -2;  // origins beside the clients' numbers
constexpr std::size_t kStateBytes = 2000;

inline std::atomic<int> streamCount{0};

/// Number of a server's message. Each thread of the servers makes a stream of its own, whose order
/// every client sees.
struct Tag {
  int stream, n, origin, seq;
  static Tag next(int origin, int seq) {
    thread_local const int stream = streamCount++;
    thread_local int n = 0;
    return {stream, n++, origin, seq};
  }
  std::string text() const {
    return std::to_string(stream) + ":" + std::to_string(n) + ":" + std::to_string(origin) + ":" +
           std::to_string(seq);
  }
};

inline std::string request(const char* command, int origin, int seq) {
  return std::string(R"({"command":")") + command + R"(","tag":"0:0:)" + std::to_string(origin) +
         ":" + std::to_string(seq) + "\"}";
}

/// @return nothing if the message is not whole, or two in one
inline std::optional<Tag> readTag(const std::string& msg) {
  static const std::string key = R"("tag":")";
  const std::size_t at = msg.find(key);
  Tag tag{};
  const bool whole = at != msg.npos && msg.find(key, at + 1) == msg.npos && msg.front() == '{' &&
                     msg.back() == '}' &&
                     std::sscanf(msg.c_str() + at + key.size(), "%d:%d:%d:%d\"", &tag.stream,
                                 &tag.n, &tag.origin, &tag.seq) == 4;
  if (!whole || (tag.origin == kFromServer && msg.size() < kStateBytes)) return std::nullopt;
  return tag;
}

/// Numbered messages of one client on their way in one direction: promised ones arrive once and in
/// order, those that were on their way when the connection ended once at most.
class Ledger {
 public:
  void send() { add(1); }
  void withdraw() { add(-1); }

  /// @return false for one that came twice or after a later one, or before a missing one
  bool arrive(int seq) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (excused_.erase(seq) > 0) return true;
    const bool ok = seq == next_;
    next_ = std::max(next_, seq + 1);
    return ok;
  }
  void linkEnds() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (; next_ < sent_; ++next_) excused_.insert(next_);
  }
  bool complete() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return next_ == sent_;
  }
  int sent() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }
  int lost() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(excused_.size());
  }

 private:
  void add(int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_ += count;
  }

  mutable std::mutex mutex_;
  int sent_ = 0, next_ = 0;
  std::set<int> excused_;  // lost unless they still come
};

/// A server's clients and what the server says of them.
struct Family {
  bool command;
  int port = 0;
  std::atomic<int> published{-1};  // number of the last state
};

/// A client, which looks at everything that it receives.
class Member : public brix::iRecieveListener {
 public:
  Member(int id, Family& family, bool hardened, Texts& faults)
      : id_(id), family_(family), hardened_(hardened), faults_(faults) {
    make();
  }

  /// One request, unless the client is being disconnected. Connects anew what the watchdog ended.
  void ask() {
    const std::unique_lock<std::mutex> lock(use_, std::try_to_lock);
    if (!lock) return;
    if (!link_->connected()) {
      ++unplanned;
      endLink();
      join();
    }
    const int seq = asked.sent();
    asked.send(), answered.send();
    if (!link_->send(request("ask", id_, seq))) asked.withdraw(), answered.withdraw();
  }

  /// @param anew  the client is destroyed and another one takes its place
  /// @param orderly  not before everything has been answered
  void reconnect(bool anew, bool orderly, int absentMs) {
    const std::lock_guard<std::mutex> lock(use_);
    if (orderly) settle();
    endLink();
    if (anew) {
      link_.reset();
    } else {
      link_->disconnect();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(absentMs));
    if (anew) make();
    join();
  }

  /// Connects, and waits for a state that was made afterwards: what is left of the connection
  /// before has been delivered by then, or has spoilt the first message.
  void join() {
    const int before = family_.published;
    const bool joined = eventually([&] {
      return (link_->connected() || link_->connect(family_.port) == 1) && state_ > before;
    });
    if (!joined) complain("cannot connect, or gets no state");
    const std::lock_guard<std::mutex> lock(seenLock_);
    knownStreams_ = streamCount;
    spoilt_ = false;
  }

  Ledger asked, answered;
  std::atomic<int> unplanned{0}, received{0};

 private:
  struct Seen {
    int last = -1, link = -1;
  };

  void make() {
    MaybeSafety safety;
    if (hardened_) safety = brix::ClientSafetyOptions::hardened();
    if (family_.command) {
      link_ = std::make_unique<CommandClient>(safety, this);
    } else {
      link_ = std::make_unique<StateClient>(safety, this);
    }
  }

  // Waits for all replies, unless the watchdog is faster.
  void settle() {
    const auto done = [this] { return asked.complete() && answered.complete(); };
    if (!eventually([&] { return done() || !link_->connected(); }, 3 * kDeadlineMs)) {
      complain("waits for a request or a reply");
    }
    if (!link_->connected()) ++unplanned;
  }

  void endLink() {
    asked.linkEnds(), answered.linkEnds();
    const std::lock_guard<std::mutex> lock(seenLock_);
    ++linkNumber_;
    knownStreams_ = std::numeric_limits<int>::max();
    spoilt_ = !hardened_;
  }

  void onReceive(const std::string& msg) override {
    const std::lock_guard<std::mutex> lock(seenLock_);
    const auto tag = readTag(msg);
    if (!tag) {
      if (msg.find("\"heartbeat\"") != msg.npos && msg.size() < 200) return;
      // An unfinished message of the old connection is continued by the new one, unless hardened.
      if (!std::exchange(spoilt_, false)) complain("gets a broken message: " + msg.substr(0, 200));
      return;
    }
    ++received;
    follow(*tag);
    if (tag->origin == kFromServer) state_ = tag->n;
    if (tag->origin == id_ && !answered.arrive(tag->seq)) complain("reply " + tag->text());
  }

  // In each stream nothing is missing but once after a reconnect, and nothing ever comes twice. A
  // stream that began later than the connection is seen from its beginning.
  void follow(const Tag& tag) {
    Seen& seen = seen_[tag.stream];
    const bool mayMiss = seen.link != linkNumber_ && tag.stream < knownStreams_;
    if (tag.n != seen.last + 1) {
      if (tag.n <= seen.last || !mayMiss) {
        complain("after " + std::to_string(seen.last) + " gets " + tag.text());
      }
      seen.link = linkNumber_;
    }
    seen.last = std::max(seen.last, tag.n);
  }

  void complain(const std::string& what) {
    faults_.add("client " + std::to_string(id_) + " " + what);
  }

  const int id_;
  Family& family_;
  const bool hardened_;
  Texts& faults_;
  std::mutex use_;  // held while the connection changes

  std::mutex seenLock_;
  std::map<int, Seen> seen_;
  int linkNumber_ = 0;
  int knownStreams_ = std::numeric_limits<int>::max();  // those that the connection may join late
  bool spoilt_ = false;                                 // the first message may be a mixture
  std::atomic<int> state_{-1};
  std::unique_ptr<AnyClient> link_;  // the last member: its threads use the others
};

}  // namespace test
