/// @file
/// Plays a motion program.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "inbox.h"
#include "link.h"
#include "program.h"
#include "progress.h"
#include "signals.h"
#include "stats.h"

namespace arm {

/// The program did not run as it should; the text says where and why.
class PlayError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A signal asked the operator to end.
struct Interrupted {
  int signal;
};

/// Sends a program's requests one after the other, and waits for each reply and for the arm.
///
/// All operations on one thread; the inbox is the one that the link was made with.
class Player {
 public:
  /// Keeps the references.
  Player(Link& link, Inbox& inbox, const SignalWatch& signals);

  /// Plays all steps; returns when the arm stands at the last pose of the program.
  /// @throws PlayError, Interrupted  at the first failure
  void play(const std::vector<ProgramStep>& steps, Progress& progress);

  /// Stops the arm if a motion of ours may still run, and waits until it stands; for the end after
  /// a failure. Reports nothing.
  void haltArm();

  /// @return counts and times up to now
  Report report() const;

 private:
  /// Where the last motion request leads.
  struct Goal {
    std::optional<JointVector> poseDeg;  // none: wherever the arm comes to rest
    std::uint64_t sinceMs;               // states after this show the request's effect
    double limitS;
  };

  std::string playStep(const ProgramStep& step);
  Reply ask(const Json::Value& request, std::chrono::milliseconds limit);
  void checkReply(const ProgramStep& step, const Reply& reply);
  void setGoal(const std::optional<JointVector>& poseDeg, const Reply& reply);
  void awaitFirstState();
  void awaitGoal();
  void checkEnd() const;
  template <typename Predicate>
  bool waitUntil(Predicate done, std::chrono::milliseconds limit) const;

  Link& link_;
  Inbox& inbox_;
  const SignalWatch& signals_;
  Clock::time_point startedAt_;
  std::string session_;  // makes ids differ from those of other operators
  std::optional<Goal> goal_;
  bool underWay_ = false;  // whether a motion of ours may still run
  Report report_;
};

}  // namespace arm
