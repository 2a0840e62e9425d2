#include "arm_model.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>
#include <string>

namespace arm {

namespace {

std::string limitText(std::size_t joint, double valueDeg) {
  const JointLimits& limits = kJointLimits[joint];
  const bool above = valueDeg > limits.maxDeg;
  std::ostringstream text;
  text << "joint " << joint + 1 << ": " << valueDeg << " deg is " << (above ? "above" : "below")
       << " its limit of " << (above ? limits.maxDeg : limits.minDeg) << " deg";
  return text.str();
}

void checkTarget(const JointVector& targetDeg) {
  for (std::size_t i = 0; i < kJointCount; ++i) {
    const double value = targetDeg[i];
    if (!std::isfinite(value)) {
      throw Refused("joint " + std::to_string(i + 1) + ": the value is not a finite number");
    }
    if (value < kJointLimits[i].minDeg || value > kJointLimits[i].maxDeg) {
      throw Refused(limitText(i, value));
    }
  }
}

void checkSpeedScale(double speedScale) {
  if (speedScale >= kMinSpeedScale && speedScale <= 1.0) return;
  std::ostringstream text;
  text << "speed_scale " << speedScale << " is not between " << kMinSpeedScale << " and 1";
  throw Refused(text.str());
}

}  // namespace

PathProfile PathProfile::trapezoid(double length, double topSpeed, double accel) {
  PathProfile profile;
  profile.accel_ = accel;
  profile.peakSpeed_ = std::min(topSpeed, std::sqrt(accel * length));
  profile.rampUpS_ = profile.peakSpeed_ / accel;
  profile.rampDownS_ = profile.rampUpS_;
  const double ramps = profile.peakSpeed_ * profile.rampUpS_;
  profile.cruiseS_ = std::max(0.0, (length - ramps) / profile.peakSpeed_);
  return profile;
}

PathProfile PathProfile::braking(double speed, double accel) {
  PathProfile profile;
  profile.accel_ = accel;
  profile.peakSpeed_ = speed;
  profile.rampDownS_ = speed / accel;
  return profile;
}

double PathProfile::length() const {
  return peakSpeed_ * (0.5 * rampUpS_ + cruiseS_ + 0.5 * rampDownS_);
}

PathProfile::Point PathProfile::at(double timeS) const {
  if (timeS < rampUpS_) return {0.5 * accel_ * timeS * timeS, accel_ * timeS};
  const double cruisedS = timeS - rampUpS_;
  if (cruisedS < cruiseS_) return {peakSpeed_ * (0.5 * rampUpS_ + cruisedS), peakSpeed_};
  const double leftS = std::max(0.0, durationS() - timeS);
  return {length() - 0.5 * accel_ * leftS * leftS, accel_ * leftS};
}

ArmModel::ArmModel() : pathStartDeg_(kParkedDeg) {
  state_.jointsDeg = kParkedDeg;
  state_.targetDeg = kParkedDeg;
}

double ArmModel::moveTo(const JointVector& targetDeg, double speedScale) {
  checkTarget(targetDeg);
  checkSpeedScale(speedScale);
  if (state_.moving) throw Refused("the arm is moving: wait for its arrival or stop it first");

  double pathSpeed = std::numeric_limits<double>::infinity();
  double pathAccel = std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < kJointCount; ++i) {
    pathDeltaDeg_[i] = targetDeg[i] - state_.jointsDeg[i];
    const double distance = std::abs(pathDeltaDeg_[i]);
    if (distance == 0.0) continue;
    pathSpeed = std::min(pathSpeed, speedScale * kJointLimits[i].speedDegS / distance);
    pathAccel = std::min(pathAccel, kJointLimits[i].accelDegS2 / distance);
  }
  state_.targetDeg = targetDeg;
  if (std::isinf(pathAccel)) return 0.0;  // no joint has a way to go

  pathAccel_ = pathAccel;
  begin(PathProfile::trapezoid(1.0, pathSpeed, pathAccel));
  return profile_.durationS();
}

void ArmModel::stop() {
  if (!state_.moving) return;
  begin(PathProfile::braking(profile_.at(elapsedS_).speed, pathAccel_));
  state_.targetDeg = onPath(profile_.length());
}

void ArmModel::begin(const PathProfile& profile) {
  pathStartDeg_ = state_.jointsDeg;
  profile_ = profile;
  elapsedS_ = 0.0;
  state_.moving = true;
}

JointVector ArmModel::onPath(double position) const {
  JointVector jointsDeg{};
  for (std::size_t i = 0; i < kJointCount; ++i) {
    jointsDeg[i] = pathStartDeg_[i] + position * pathDeltaDeg_[i];
  }
  return jointsDeg;
}

void ArmModel::step(double dtS) {
  if (!state_.moving) return;
  elapsedS_ += dtS;
  if (elapsedS_ >= profile_.durationS()) {
    state_.jointsDeg = state_.targetDeg;  // exactly, without the rounding of the path
    state_.speedsDegS = {};
    state_.moving = false;
    return;
  }
  const PathProfile::Point point = profile_.at(elapsedS_);
  state_.jointsDeg = onPath(point.position);
  for (std::size_t i = 0; i < kJointCount; ++i) {
    state_.speedsDegS[i] = point.speed * pathDeltaDeg_[i];
  }
}

}  // namespace arm
