/// @file
/// How far a program has been played.
#pragma once

#include <cstddef>
#include <string>

namespace arm {

/// Shows progress on standard error: a bar on a terminal, a line a step elsewhere.
class Progress {
 public:
  explicit Progress(std::size_t steps);

  /// Step `number`, from 1, begins.
  void begin(std::size_t number, const std::string& what);

  /// The step that began last has ended so.
  void end(const std::string& result);

  /// Wipes the bar, so that other text can follow.
  void clear() const;

 private:
  void drawBar(std::size_t stepsDone) const;

  bool terminal_;
  std::size_t steps_;
  std::size_t number_ = 0;
  std::string what_;
};

}  // namespace arm
