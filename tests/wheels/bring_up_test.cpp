// The frames of a bring-up, from the first to the last, for every make: zero is confirmed in every
// node before anything enables one.
#include <algorithm>
#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "amps_script.h"
#include "hls_script.h"
#include "kinco_script.h"
#include "scripted_nodes.h"
#include "tt_script.h"
#include "wheels_test.h"
#include "zl_script.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;

using Frames = std::vector<std::string>;

// What is sent to node 1 in each step.
struct Script {
  std::string name;
  std::string make;
  bool asleep;
  Frames wake_up;
  Frames reset;
  Frames zero;
  Frames set_up;
};

void PrintTo(const Script& script, std::ostream* out) { *out << script.name; }

Frames Joined(const std::vector<Frames>& parts) {
  Frames all;
  for (const Frames& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

std::vector<Script> Scripts() {
  const Frames reset = {"000#8101", "000#8001"};
  const Frames start = {"000#0101"};
  const Frames zero = {"601#23FF600000000000"};
  const Frames two_zeros = {"601#23FF600100000000", "601#23FF600200000000"};
  const Frames error = {"601#403F600000000000"};
  // Two makes are asked with another command, which their drives take.
  const Frames odd_error = {"601#433F600000000000"};
  // A third of 300 ms, read back.
  const Frames heartbeat = {"601#2B17100064000000", "601#4017100000000000"};
  const Frames is_awake = {"601#4040600000000000"};
  const Frames tt = Joined({zero, FramesOf(tt_script::WholeSetUp()), heartbeat, start});
  return {
      {"zl",
       "zl",
       false,
       {},
       reset,
       two_zeros,
       Joined({odd_error, two_zeros, FramesOf(zl_script::WholeSetUp()), heartbeat, start})},
      {"tt", "tt", false, is_awake, reset, zero, tt},
      {"tt_asleep", "tt", true, Joined({is_awake, {"001#1010"}}), reset, zero, tt},
      {"hls",
       "hls",
       false,
       {},
       {},
       zero,
       Joined({odd_error, zero, FramesOf(hls_script::WholeSetUp()), heartbeat, start})},
      {"amps",
       "amps",
       false,
       {},
       reset,
       {"601#2BF02F0900000000"},
       Joined({FramesOf(amps_script::WholeSetUp()), {"601#2B0018050A000000"}, heartbeat, start})},
      {"kinco",
       "kinco",
       false,
       {},
       {},
       zero,
       Joined({start,
               {"601#2B4060000F000000"},
               error,
               zero,
               FramesOf(kinco_script::WholeSetUp()),
               heartbeat})},
  };
}

// The same frames to another node.
Frames OfNode(int node, Frames frames) {
  for (std::string& frame : frames) {
    const std::string id = wire::Hex(static_cast<unsigned>(node), 2);
    if (wire::StartsWith(frame, "601#")) {
      frame = wire::SdoRequest(node) + frame.substr(3);
      // Identifiers of PDOs carry the node-ID.
      if (frame.substr(4, 2) == "23" && frame.substr(10, 2) == "01" &&
          (frame.substr(6, 4) == "0014" || (frame[7] < '4' && frame.substr(8, 2) == "18"))) {
        const unsigned low = static_cast<unsigned>(std::stoul(frame.substr(12, 2), nullptr, 16));
        frame.replace(12, 2, wire::Hex(low + static_cast<unsigned>(node) - 1, 2));
      }
    } else if (wire::StartsWith(frame, "000#")) {
      frame.replace(6, std::string::npos, id);
    } else {
      frame = "0" + id + frame.substr(3);
    }
  }
  return frames;
}

Frames WholeBringUp(const Script& script, const std::vector<int>& nodes) {
  Frames all;
  const Frames look = {"601#4041600000000000", "601#403F600000000000"};
  for (const Frames& step : {script.wake_up, script.reset, script.zero, script.set_up, look}) {
    for (const int node : nodes) {
      all = Joined({all, OfNode(node, step)});
    }
  }
  return all;
}

// Without the zeros that flow every period to nodes that are set up.
Frames WithoutFlowingZeros(const wire::DriveMake& make, const std::vector<int>& nodes,
                           const Frames& frames) {
  Frames rest;
  for (const std::string& frame : frames) {
    bool flows = false;
    for (const int node : nodes) {
      const auto rpm = wire::CommandedRpm(make, node, frame);
      EXPECT_EQ(rpm.value_or(0), 0) << frame;
      const bool again = std::find(rest.begin(), rest.end(), frame) != rest.end();
      flows = flows || (wire::StartsWith(frame, wire::Rpdo1(node) + "#")) ||
              (make.commands_by_sdo && wire::IsSdoZero(make, node, frame) && again);
    }
    if (!flows) {
      rest.push_back(frame);
    }
  }
  return rest;
}

class BringUpFramesTest : public WheelsTest, public ::testing::WithParamInterface<Script> {
 protected:
  void ExpectWholeBringUp(const std::vector<int>& nodes) {
    const Script& script = GetParam();
    const wire::DriveMake& make = MakeByName(script.make);
    ScriptedNodes::Options options;
    options.asleep = script.asleep;
    options.boot_time = milliseconds(script.asleep ? 200 : 50);
    Vehicle vehicle = TwoWheels(make);
    for (std::size_t wheel = 0; wheel < 2; ++wheel) {
      vehicle.wheels[wheel].node = nodes[wheel % nodes.size()];
    }
    vehicle.wheels.resize(nodes.size());
    const Frames expected = WholeBringUp(script, nodes);
    ScriptedNodes scripted(make, nodes, options);
    bus::FarEnd bus_record;
    Wheels wheels(vehicle);
    EXPECT_TRUE(wheels.BringUp()) << wheels.GetReport().reason;
    EXPECT_EQ(wheels.GetReport().state, State::kReady);
    const Frames sent = WithoutFlowingZeros(make, nodes, scripted.far_end().Frames());
    EXPECT_EQ(sent, expected);
    wire::ExpectZeroConfirmedFirst(make, nodes, bus_record.Records());

    EXPECT_TRUE(wheels.BringUp()) << "ready already";
    EXPECT_TRUE(wheels.Clear()) << "nothing to clear";
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(WithoutFlowingZeros(make, nodes, scripted.far_end().Frames()).size(), sent.size());
  }
};

TEST_P(BringUpFramesTest, OfOneNode) { ExpectWholeBringUp({1}); }

TEST_P(BringUpFramesTest, OfTwoNodes) { ExpectWholeBringUp({2, 5}); }

INSTANTIATE_TEST_SUITE_P(Makes, BringUpFramesTest, ::testing::ValuesIn(Scripts()),
                         NameOfMake<Script>);

class ResettingMakesTest : public EveryMakeTest {};

TEST_P(ResettingMakesTest, AHeartbeatFromBeforeTheResetIsNotTakenForTheBootUp) {
  ScriptedNodes::Options options;
  options.boot_time = milliseconds(600);
  options.heartbeats_before_the_reset = true;
  ScriptedNodes scripted(GetParam(), TwoNodes(), options);
  bus::FarEnd bus_record;
  Wheels wheels(TwoWheels(GetParam()));
  EXPECT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  std::vector<bool> booted = {false, false, false};
  std::vector<bool> reset = booted;
  for (const bus::RecordedFrame& record : bus_record.Records()) {
    for (const int node : TwoNodes()) {
      const auto index = static_cast<std::size_t>(node);
      booted[index] = booted[index] || wire::IsBootUp(node, record.text);
      reset[index] = reset[index] || record.text == "000#810" + std::to_string(node);
      if (reset[index] && !booted[index]) {
        EXPECT_FALSE(wire::StartsWith(record.text, wire::SdoRequest(node))) << record.text;
      }
    }
  }
  EXPECT_EQ(reset, (std::vector<bool>{false, true, true}));
  EXPECT_EQ(booted, reset);
}

INSTANTIATE_TEST_SUITE_P(Makes, ResettingMakesTest,
                         ::testing::Values(MakeByName("zl"), MakeByName("tt"), MakeByName("amps")),
                         NameOfMake<wire::DriveMake>);

// Its boot-up message is lost: it is waited for, 2 s for each node, but only once.
TEST_F(WheelsTest, ABootUpThatIsNotHeardIsWaitedForOnce) {
  const wire::DriveMake& make = MakeByName("amps");
  ScriptedNodes::Options options;
  options.boot_time = std::chrono::hours(1);
  ScriptedNodes scripted(make, TwoNodes(), options);
  Wheels wheels(TwoWheels(make));
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  const auto took = bus::Clock::now() - begin;
  EXPECT_GT(took, std::chrono::seconds(4));
  EXPECT_LT(took, milliseconds(7500));
}

class SupervisedBringUpTest : public WheelsTest {};

// Its supervision would lead drives that report a released emergency stop back to motion.
TEST_F(SupervisedBringUpTest, TheSupervisionSendsNothingBeforeZeroIsConfirmedInEveryNode) {
  const wire::DriveMake& make = MakeByName("kinco");
  ScriptedNodes::Options options;
  options.status = "000050000000";
  options.reports_status_at_once = true;
  ScriptedNodes scripted(make, TwoNodes(), options);
  scripted.far_end().AnswerSdo(2).SilenceAll();
  bus::FarEnd bus_record;
  {
    Wheels wheels(TwoWheels(make));
    EXPECT_FALSE(wheels.BringUp());
    EXPECT_EQ(wheels.GetReport().state, State::kOff);
    EXPECT_EQ(wheels.GetReport().fault, Fault::kNodeSilent);
    EXPECT_EQ(wheels.GetReport().node, 2);
  }
  for (const bus::RecordedFrame& record : bus_record.Records()) {
    for (const int node : TwoNodes()) {
      EXPECT_FALSE(wire::Enables(node, record.text)) << record.text;
      EXPECT_FALSE(wire::StartsWith(record.text, wire::SdoRequest(node) + "#2B4060"))
          << record.text;
    }
  }
}

}  // namespace
