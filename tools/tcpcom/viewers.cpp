#include "viewers.h"

#include <cmath>
#include <utility>

#include "json_text.h"
#include "text_format.h"

namespace tcpcom {
namespace {

constexpr double kRatePeriodS = 1;
constexpr std::size_t kChartValues = 40;

}  // namespace

bool Lister::show(const Message& message) {
  const double at = wallTimeS(message.at);
  const auto bytes = static_cast<std::int64_t>(message.text.size());
  if (out_.raw()) {
    out_.line(message.text);
  } else if (out_.json()) {
    out_.line(JsonLine().number("time", at).integer("bytes", bytes).message(message.text).str());
  } else {
    const std::string head = timeOfDay(at) + ' ' + padded(std::to_string(bytes), 6) + " B  ";
    out_.line(out_.painted(head, Paint::Dim) + printable(message.text));
  }
  return true;
}

bool Rater::show(const Message& message) {
  if (last_ != TimePoint()) periodsMs_.add(secondsBetween(last_, message.at) * 1000);
  last_ = message.at;
  ++count_;
  bytes_ += static_cast<std::int64_t>(message.text.size());
  return true;
}

void Rater::tick() {
  const TimePoint now = Clock::now();
  const double seconds = secondsBetween(begin_, now);
  const double perS = static_cast<double>(count_) / seconds;
  const double bytesPerS = static_cast<double>(bytes_) / seconds;
  if (out_.json()) {
    out_.line(JsonLine()
                  .number("time", wallTimeS(now))
                  .number("messagesPerS", perS)
                  .number("bytesPerS", bytesPerS)
                  .number("periodMs", periodsMs_.mean())
                  .number("jitterMs", periodsMs_.deviation())
                  .number("longestMs", periodsMs_.max())
                  .str());
  } else {
    out_.line(out_.painted(timeOfDay(wallTimeS(now)), Paint::Dim) + padded(fixed(perS, 1), 10) +
              " messages/s" + padded(fixed(bytesPerS, 0), 10) + " B/s   period " +
              fixed(periodsMs_.mean(), 3) + " ms   jitter " + fixed(periodsMs_.deviation(), 3) +
              " ms   longest " + fixed(periodsMs_.max(), 3) + " ms");
  }
  periodsMs_.clear();
  count_ = bytes_ = 0;
  begin_ = now;
  due_ = after(kRatePeriodS, now);
}

void Rater::finish() {
  if (count_ > 0) tick();
}

Plotter::Plotter(const Output& out, std::string path)
    : Viewer(out), path_(std::move(path)), chart_(kChartValues) {}

bool Plotter::show(const Message& message) {
  const auto parsed = parseJson(message.text);
  const Json::Value* value = parsed ? memberAt(*parsed, path_) : nullptr;
  if (value == nullptr || !value->isNumeric() || !std::isfinite(value->asDouble())) {
    return false;
  }
  if (out_.raw()) {
    out_.line(plainText(*value));
  } else if (out_.json()) {
    const double at = wallTimeS(message.at);
    out_.line(JsonLine().number("time", at).json("value", plainText(*value)).str());
  } else {
    draw(value->asDouble());
  }
  return true;
}

void Plotter::draw(double value) {
  const std::string chart = chart_.add(value);
  const std::string range = "  " + fixed(chart_.least(), 3) + " to " + fixed(chart_.largest(), 3);
  const std::string text = chart + " " + out_.painted(padded(fixed(value, 3), 10), Paint::Bold) +
                           out_.painted(range, Paint::Dim);
  if (out_.onTerminal()) {
    out_.write("\r\x1B[K" + text);
  } else {
    out_.line(text);
  }
  drawn_ = true;
}

void Plotter::finish() {
  if (drawn_ && out_.onTerminal()) out_.write("\n");
}

}  // namespace tcpcom
