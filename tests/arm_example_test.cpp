// The demo's arm, its answers and its programs.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>

#include "arm_model.h"
#include "arm_simulation.h"
#include "command_handler.h"
#include "player.h"
#include "program.h"
#include "state_broadcast.h"
#include "tcp_server_wrapper.h"

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
    const arm::JointVector& goal = stopped ? model.state().targetDeg : target;
    for (std::size_t i = 0; i < arm::kJointCount; ++i) {
      EXPECT_NEAR(model.state().jointsDeg[i], goal[i], 1e-9);
    }
    if (!stopped) {
      EXPECT_NEAR(steps * kStepS, plannedS, 0.003);
    }
  }
}

/// A controller without network: one family's code answers at once, behind replies to others.
struct Loopback : arm::Link {
  explicit Loopback(bool ofCommands) : commandFamily(ofCommands) {
    auto handlers = commands.handlers();
    server.setHandleMap(handlers);
  }
  std::string answer(const std::string& request) {
    return commandFamily ? server.commandHandle(request) : commands.answer(request);
  }
  bool send(const Json::Value& request) override {
    inbox.onReceive(R"({"code":7,"command":"get_state"})");
    inbox.onReceive(R"({"code":7,"command":"heartbeat","id":"theirs"})");
    inbox.onReceive(answer(request.toStyledString()));
    return connected;
  }
  bool isConnected() override { return true; }
  bool commandFamily, connected = true;
  arm::Inbox inbox;
  arm::ArmSimulation simulation;
  arm::CommandHandler commands{simulation};
  brix::TcpServerWrapper server{-1};
};

TEST(CommandHandler, AnswersBothFamilies) {
  const std::string move = R"({"command":"move_joints","id":"a","joints_deg":)";
  const struct {
    std::string request, state;
    std::string command = "";  // where the command family's reply differs
  } rows[] = {
      {R"({"command":"get_state","id":7})", R"({"code":1,"command":"get_state","id":7,"msg":"co)"},
      {R"({"command":"dance"})", R"("command":"dance","msg":"cannot found command handle"})"},
      {R"({"cmd":"x"})", R"({"code":-2,"msg":"command parse error"})"},
      {"[1,2]", R"({"code":-2,"command":"unknow","msg":"command parse error"})"},
      {std::string(100000, '['), R"({"code":-2,"msg":"command parse error"})"},
      {move + "[0,0,999,0,0,0]}", R"({"code":-2,"command":"move_joints","id":"a","msg":"joint 3)",
       R"("command":"move_joints","id":"a","msg":"command recieved","refused":"joint 3)"},
      {move + "[0,0]}", R"("msg":"joints_deg)", R"("refused":"joints_deg)"},
      {move + "[0,0,9,0,0,0],\"speed_scale\":2}", R"("msg":"speed)", R"("refused":"speed)"},
      {R"({"command":"stop","id":[]})", R"("msg":"id must)", R"("refused":"id must)"},
      {move + "[0,0,9,0,0,0]}", R"({"code":1,"command":"move_joints","duration_s":)"},
  };
  Loopback state(false), command(true);
  for (const auto& row : rows) {
    const std::string& expected = row.command.empty() ? row.state : row.command;
    EXPECT_NE(state.answer(row.request).find(row.state), std::string::npos) << row.request;
    EXPECT_NE(command.answer(row.request).find(expected), std::string::npos) << row.request;
  }
}

// A program expects the same of both families, however their replies look.
TEST(Player, PlaysThroughEitherFamily) {
  std::istringstream program(R"({"command":"heartbeat"}
      {"command":"dance","expect":{"code":-2,"msg":"cannot found command handle"}}
      {"command":"move_joints","joints_deg":[999,0,0,0,0,0],"expect":{"code":-2}}
      {"command":"get_state"})");
  const auto steps = arm::readProgram(program);
  const arm::SignalWatch signals;
  for (const bool commandFamily : {false, true}) {
    Loopback link(commandFamily);
    arm::StateBroadcast states(link.simulation);
    for (const bool heard : {false, true, false, false, true}) {
      const std::string state = states.next().toStyledString();
      if (heard) link.inbox.onReceive(state);
    }
    arm::Player player(link, link.inbox, signals);
    arm::Progress progress(steps.size());
    player.play(steps, progress);
    const std::string counts = arm::formatLine(player.report().broadcasts);
    EXPECT_EQ(counts, "broadcasts: first 2, last 5, received 2, missing 2");
    link.connected = false;
    EXPECT_THROW(player.play(steps, progress), arm::PlayError);
  }
}

TEST(Program, NamesTheFaultyLine) {
  const struct {
    std::string text, part;
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
