#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace arm {

namespace {

constexpr std::size_t kBarWidth = 40;
constexpr char kWipeLine[] = "\r\x1B[K";

void show(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace

Progress::Progress(std::size_t steps) : terminal_(isatty(STDERR_FILENO) != 0), steps_(steps) {}

void Progress::begin(std::size_t number, const std::string& what) {
  number_ = number;
  what_ = what;
  if (terminal_) drawBar(number - 1);
}

void Progress::end(const std::string& result) {
  if (terminal_) {
    drawBar(number_);
    return;
  }
  show(std::to_string(number_) + "/" + std::to_string(steps_) + " " + what_ + ": " + result + "\n");
}

void Progress::drawBar(std::size_t stepsDone) const {
  const std::size_t filled = steps_ == 0 ? kBarWidth : kBarWidth * stepsDone / steps_;
  show(kWipeLine + ("[" + std::string(filled, '#')) + std::string(kBarWidth - filled, '.') + "] " +
       std::to_string(stepsDone) + "/" + std::to_string(steps_) + " " + what_);
}

void Progress::clear() const {
  if (terminal_) show(kWipeLine);
}

}  // namespace arm
