// Ways to show messages that arrive.
#pragma once

#include <cstdint>
#include <string>

#include "output.h"
#include "session.h"
#include "sparkline.h"
#include "statistics.h"

namespace tcpcom {

class Viewer {
 public:
  explicit Viewer(const Output& out) : out_(out) {}
  virtual ~Viewer() = default;

  /// @return false if the message has nothing to show
  virtual bool show(const Message& message) = 0;

  /// @return when tick() is due
  virtual TimePoint due() const { return kNever; }
  virtual void tick() {}

  virtual void finish() {}

 protected:
  const Output& out_;
};

/// Time, size, text.
class Lister : public Viewer {
 public:
  using Viewer::Viewer;
  bool show(const Message& message) override;
};

/// Messages a second and how evenly they come, once a second.
class Rater : public Viewer {
 public:
  using Viewer::Viewer;
  bool show(const Message& message) override;
  TimePoint due() const override { return due_; }
  void tick() override;
  void finish() override;

 private:
  Statistics periodsMs_;
  TimePoint last_;
  std::int64_t count_ = 0;
  std::int64_t bytes_ = 0;
  TimePoint begin_ = Clock::now();
  TimePoint due_ = after(1, begin_);
};

/// A chart of one value, which moves in place on a terminal and grows line by line elsewhere.
class Plotter : public Viewer {
 public:
  Plotter(const Output& out, std::string path);
  bool show(const Message& message) override;
  void finish() override;

 private:
  void draw(double value);

  std::string path_;
  Sparkline chart_;
  bool drawn_ = false;
};

}  // namespace tcpcom
