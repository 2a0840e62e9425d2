/// @file
/// Joint-space motion of a simulated six-axis arm.
#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>

namespace arm {

inline constexpr std::size_t kJointCount = 6;
using JointVector = std::array<double, kJointCount>;

struct JointLimits {
  double minDeg;
  double maxDeg;
  double speedDegS;
  double accelDegS2;
};

inline constexpr std::array<JointLimits, kJointCount> kJointLimits = {{
    {-170.0, 170.0, 150.0, 500.0},
    {-110.0, 120.0, 140.0, 450.0},
    {-150.0, 150.0, 170.0, 550.0},
    {-185.0, 185.0, 240.0, 900.0},
    {-120.0, 120.0, 240.0, 900.0},
    {-350.0, 350.0, 360.0, 1200.0},
}};

/// Where the arm stands when the controller starts.
inline constexpr JointVector kParkedDeg = {0.0, -60.0, 110.0, 0.0, 40.0, 0.0};

/// The slowest motion that can be asked for, as a share of the full speed.
inline constexpr double kMinSpeedScale = 0.01;

/// A command that the arm does not carry out; the text tells its sender why.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Speed along a path: accelerate, cruise, decelerate to standstill.
class PathProfile {
 public:
  struct Point {
    double position;
    double speed;
  };

  /// Stands at position 0.
  PathProfile() = default;

  /// The fastest way over `length` from standstill; a short path never reaches `topSpeed`.
  static PathProfile trapezoid(double length, double topSpeed, double accel);

  /// From `speed` to standstill, beginning at position 0.
  static PathProfile braking(double speed, double accel);

  Point at(double timeS) const;
  double length() const;
  double durationS() const { return rampUpS_ + cruiseS_ + rampDownS_; }

 private:
  double accel_ = 0.0;
  double peakSpeed_ = 0.0;
  double rampUpS_ = 0.0;
  double cruiseS_ = 0.0;
  double rampDownS_ = 0.0;
};

struct ArmState {
  JointVector jointsDeg{};
  JointVector speedsDegS{};
  JointVector targetDeg{};
  bool moving = false;
};

/// All joints follow one straight path in joint space, so they start and arrive together; the
/// path's speed and acceleration are the highest that keep every joint within its own limits.
///
/// Not thread safe: its owner holds a lock.
class ArmModel {
 public:
  ArmModel();

  /// Begins a motion.
  /// @param speedScale  share of the full speed, from kMinSpeedScale to 1
  /// @return planned duration in seconds; 0 if the arm is there already
  /// @throws Refused  outside a joint's limits, while moving, or for a scale out of range
  double moveTo(const JointVector& targetDeg, double speedScale);

  /// Brakes on the path as hard as the joints may; the target becomes the pose where the arm will
  /// stand. Does nothing at standstill.
  void stop();

  /// Lets `dtS` seconds pass.
  void step(double dtS);

  const ArmState& state() const { return state_; }

 private:
  JointVector onPath(double position) const;
  void begin(const PathProfile& profile);

  ArmState state_;
  JointVector pathStartDeg_{};
  JointVector pathDeltaDeg_{};  // the whole path, from position 0 to 1
  double pathAccel_ = 0.0;
  PathProfile profile_;
  double elapsedS_ = 0.0;
};

}  // namespace arm
