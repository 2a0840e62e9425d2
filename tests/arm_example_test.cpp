// The demo's arm, its answers and its programs.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>

#include "arm_model.h"
#include "arm_simulation.h"
#include "command_handler.h"
#include "program.h"

namespace {

constexpr double kStepS = 0.001;

// Every joint keeps its limits at every step of any motion, and every motion ends on its target.
TEST(ArmModel, RandomMotionsKeepTheLimitsAndArrive) {
  std::mt19937 random(7);
  arm::ArmModel model;
  for (int motion = 0; motion < 40; ++motion) {
    arm::JointVector target{};
    for (std::size_t i = 0; i < arm::kJointCount; ++i) {
      const auto& limits = arm::kJointLimits[i];
      target[i] = std::uniform_real_distribution<>(limits.minDeg, limits.maxDeg)(random);
    }
    const double plannedS = model.moveTo(target, motion % 2 == 0 ? 1.0 : 0.4);
    EXPECT_THROW(model.moveTo(target, 1.0), arm::Refused) << "it is moving";
    const bool stopped = motion % 5 == 0;
    int steps = 0;
    for (; model.state().moving && steps < 60000; ++steps) {
      const arm::ArmState before = model.state();
      if (stopped && steps == 200) model.stop();
      model.step(kStepS);
      for (std::size_t i = 0; i < arm::kJointCount; ++i) {
        const auto& limits = arm::kJointLimits[i];
        const double speed = model.state().speedsDegS[i];
        ASSERT_LE(std::abs(speed), limits.speedDegS * 1.001);
        ASSERT_LE(std::abs(speed - before.speedsDegS[i]), limits.accelDegS2 * kStepS * 1.01);
      }
    }
    for (std::size_t i = 0; i < arm::kJointCount; ++i) {
      EXPECT_NEAR(model.state().jointsDeg[i], model.state().targetDeg[i], 1e-9);
      if (!stopped) {
        EXPECT_NEAR(model.state().jointsDeg[i], target[i], 1e-9);
      }
    }
    if (!stopped) {
      EXPECT_NEAR(steps * kStepS, plannedS, 0.003);
    }
  }
}

TEST(CommandHandler, AnswersInTheEnvelope) {
  arm::ArmSimulation simulation;
  arm::CommandHandler handler(simulation);
  const struct {
    std::string request;
    int code;
    std::string part;
  } rows[] = {
      {R"({"command":"heartbeat"})", 1, R"("command":"heartbeat","msg":"command recieved")"},
      {R"({"command":"get_state","id":7})", 1, R"("id":7)"},
      {R"({"command":"dance"})", -2, R"("command":"dance","msg":"cannot found command handle")"},
      {R"({"cmd":"x"})", -2, R"("msg":"command parse error")"},
      {"[1,2]", -2, R"("command":"unknow","msg":"command parse error")"},
      {"nonsense", -2, R"("msg":"command parse error")"},
      {std::string(100000, '['), -2, R"("msg":"command parse error")"},
      {R"({"command":"move_joints","joints_deg":[0,0,999,0,0,0]})", -2, "joint 3"},
      {R"({"command":"move_joints","joints_deg":[0,0]})", -2, "joints_deg"},
      {R"({"command":"move_joints","joints_deg":[0,0,90,0,0,0],"speed_scale":2})", -2,
       "speed_scale"},
      {R"({"command":"move_joints","joints_deg":[0,0,90,0,0,0]})", 1, "command recieved"},
  };
  for (const auto& row : rows) {
    const std::string reply = handler.answer(row.request);
    EXPECT_NE(reply.find("\"code\":" + std::to_string(row.code)), std::string::npos) << reply;
    EXPECT_NE(reply.find(row.part), std::string::npos) << reply;
  }
}

TEST(Program, NamesTheFaultyLine) {
  const struct {
    std::string text;
    std::string part;
  } rows[] = {
      {"", "request"},
      {"# only a comment\n\n", "request"},
      {"{\"command\":\"stop\"}\nnot json\n", "line 2"},
      {"\n[1]\n", "line 2"},
      {"{\"command\":3}\n", "line 1"},
      {"{\"command\":\"move_joints\",\"joints_deg\":[1,2,3]}\n", "line 1"},
      {"{\"command\":\"stop\"} trailing\n", "line 1"},
  };
  for (const auto& row : rows) {
    std::istringstream in(row.text);
    try {
      arm::readProgram(in);
      ADD_FAILURE() << row.text;
    } catch (const arm::ProgramError& error) {
      EXPECT_NE(std::string(error.what()).find(row.part), std::string::npos) << error.what();
    }
  }
}

}  // namespace
