// motorctl jog: turns as asked, and however it ends the last speed on the wire is zero.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "jog_bench.h"

namespace {

class JogMakeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {
 protected:
  const std::string make_ = GetParam().name;
  BusRecord record_;
  sim::SimulatedDrive drive_{Options(make_)};
};

INSTANTIATE_TEST_SUITE_P(Makes, JogMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(JogMakeTest, TurnsAsAskedAndStops) {
  const Result result = Motorctl(JogLine(make_, {"3", "--json"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.err, "zero speed sent;")) << result.err;
  const std::vector<Json> objects = result.Objects();
  ASSERT_GT(objects.size(), 10U);
  EXPECT_EQ(objects.back()["event"], "end");
  EXPECT_EQ(objects.back()["ok"], true);
  EXPECT_EQ(objects.back()["stop_confirmed"], true);
  EXPECT_NEAR(UsualRpm(objects, 60), 60, 6);
  ExpectZeroAtTheEnd(SpeedCommands(record_, make_));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);

  // Zero before it is enabled.
  const std::vector<std::string> frames = record_.Frames();
  const auto first = [&frames](const std::string& start) {
    return std::find_if(frames.begin(), frames.end(),
                        [&start](const std::string& frame) { return StartsWith(frame, start); });
  };
  const tested::TargetVelocity& object = GetParam().target_velocities.back();
  char frame[32];
  std::snprintf(frame, sizeof(frame), "601#%02X%02X%02X%02X00000000", object.command,
                object.index & 0xFFU, object.index >> 8U, object.sub_index);
  const auto zero = first(frame);
  const auto enable = first("601#2B4060000F00");
  ASSERT_NE(zero, frames.end());
  ASSERT_NE(enable, frames.end());
  EXPECT_LT(zero - frames.begin(), enable - frames.begin());
}

TEST_P(JogMakeTest, StopsOnASignalWhileItTurns) {
  Process jog(JogLine(make_, {"30"}));
  ASSERT_TRUE(Eventually([&] { return std::abs(drive_.SpeedRpm()) > 30; })) << jog.Err();
  jog.Signal(SIGINT);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "interrupted")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "measured to stand still")) << jog.Err();
  EXPECT_TRUE(AnySpeed(SpeedCommands(record_, make_)));
  ExpectZeroAtTheEnd(SpeedCommands(record_, make_));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

struct Moment {
  int ms;
  int signal;
};

class JogMomentTest : public bus::BusTest, public ::testing::WithParamInterface<Moment> {};

// Before, in and after the set-up, in the ramps, and while it stops.
INSTANTIATE_TEST_SUITE_P(
    Moments, JogMomentTest,
    ::testing::Values(Moment{0, SIGINT}, Moment{60, SIGTERM}, Moment{250, SIGHUP},
                      Moment{700, SIGINT}, Moment{1500, SIGTSTP}, Moment{2600, SIGQUIT},
                      Moment{3000, SIGUSR1}, Moment{3500, SIGTERM}, Moment{5000, SIGALRM}),
    [](const auto& moment) { return "After" + std::to_string(moment.param.ms) + "ms"; });

// Whatever the moment, no speed other than zero is the last one, and nothing turns.
TEST_P(JogMomentTest, EndsAtZeroSpeed) {
  BusRecord record;
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(JogLine("zl", {"2"}));
  std::this_thread::sleep_for(std::chrono::milliseconds(GetParam().ms));
  jog.Signal(GetParam().signal);
  const int status = jog.Wait();
  const std::vector<std::string> commands = SpeedCommands(record, "zl");
  if (!commands.empty()) {
    EXPECT_TRUE(IsZero(commands.back()));
    // The process was ended by nothing but itself, until it had said its last word.
    EXPECT_GE(status, Contains(jog.Err(), "measured to stand still") ? -1 : 0) << jog.Err();
    EXPECT_LE(status, 1) << jog.Err();
  }
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

class JogTest : public bus::BusTest {
 protected:
  static std::string Last(const std::vector<std::string>& frames, std::size_t count) {
    std::string text;
    for (std::size_t i = frames.size() - std::min(frames.size(), count); i < frames.size(); ++i) {
      text += frames[i] + "\n";
    }
    return text;
  }
  void WaitUntilItTurns() {
    ASSERT_TRUE(Eventually([&] { return std::abs(drive_.SpeedRpm()) > 30; }))
        << "last frames:\n"
        << Last(record_.Frames(), 30);
  }
  BusRecord record_;
  sim::SimulatedDrive drive_{Options("zl")};
};

TEST_F(JogTest, WritesTableAndPicture) {
  const std::string csv = ::testing::TempDir() + "/jog.csv";
  const std::string svg = ::testing::TempDir() + "/jog.svg";
  const Result result = Motorctl(JogLine("zl", {"2", "--rpm2", "-30", "--csv", csv, "--svg", svg}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "target   60, measured")) << result.out;
  EXPECT_TRUE(Contains(result.out, "target  -30, measured")) << result.out;
  EXPECT_FALSE(Contains(result.out, "\x1b"));
  std::ifstream table(csv);
  std::string line;
  std::getline(table, line);
  EXPECT_EQ(line, "second,target_rpm,measured_rpm,target2_rpm,measured2_rpm");
  int lines = 0;
  int highest = 0;
  int lowest = 0;
  for (; std::getline(table, line); ++lines) {
    double second = 0;
    double measured = 0;
    double measured2 = 0;
    int target = 0;
    int target2 = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%d,%lf,%d,%lf", &second, &target, &measured, &target2,
                          &measured2),
              5)
        << line;
    highest = std::max(highest, target);
    lowest = std::min(lowest, target2);
  }
  EXPECT_GT(lines, 50);
  EXPECT_EQ(highest, 60);
  EXPECT_EQ(lowest, -30);
  std::ifstream picture(svg);
  std::ostringstream text;
  text << picture.rdbuf();
  EXPECT_TRUE(StartsWith(text.str(), "<svg "));
  EXPECT_TRUE(Contains(text.str(), "</svg>"));
  EXPECT_TRUE(Contains(text.str(), ">node 1 motor 2</text>"));
  EXPECT_FALSE(Contains(text.str(), "points=\"\"")) << "a curve without a point";
  EXPECT_EQ(Motorctl(JogLine("zl", {"2", "--csv", "/absent/file"})).status, 1);
}

TEST_F(JogTest, AsksAtATerminalAndDrawsAChart) {
  Arguments arguments = JogLine("zl", {"2"});
  arguments.erase(std::find(arguments.begin(), arguments.end(), "--yes"));
  Process refused(arguments, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(refused.Out(), "[y/N]"); }));
  refused.Type("\n");
  EXPECT_EQ(refused.Wait(), 1);
  EXPECT_TRUE(Contains(refused.Out(), "nothing was moved"));
  EXPECT_TRUE(SpeedCommands(record_, "zl").empty());

  Process jog(arguments, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(jog.Out(), "[y/N]"); }));
  jog.Type("y\n");
  EXPECT_EQ(jog.Wait(), 0) << jog.Out();
  EXPECT_TRUE(Contains(jog.Out(), "(- target, * measured)")) << jog.Out();
  EXPECT_TRUE(Contains(jog.Out(), "\x1b[20A")) << jog.Out();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

// A terminal that takes no more output must not keep the wheels turning.
TEST_F(JogTest, StopsThoughItsOutputIsHeld) {
  Process jog(JogLine("zl", {"4", "--json"}), Output::kTerminal);
  jog.Type("\x13");  // Ctrl-S
  WaitUntilItTurns();
  EXPECT_TRUE(Eventually([&] { return drive_.SpeedRpm() == 0.0; }));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_FALSE(Contains(jog.Out(), "\"event\":\"end\""));
  jog.Type("\x11");
  EXPECT_EQ(jog.Wait(), 0) << jog.Out();
}

TEST_F(JogTest, StopsWhenTheInterfaceComesBack) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  bus::SetDown("can0");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_GT(drive_.SpeedRpm(), 30);  // it heard nothing
  bus::SetUp("can0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "the bus can0 failed")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "both wheels were measured to stand still")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, SaysLoudlyThatAStopIsNotConfirmed) {
  Process jog(JogLine("zl", {"30", "--json"}));
  WaitUntilItTurns();
  bus::SetDown("can0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "*** THE STOP IS NOT CONFIRMED: node 1 MAY STILL TURN"))
      << jog.Err();
  EXPECT_TRUE(Contains(jog.Out(), "\"stop_confirmed\":false")) << jog.Out();
}

TEST_F(JogTest, EndsAtZeroWhenTheDriveFallsSilent) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.PowerCut();
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "sends no position reports any more")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "NOT CONFIRMED")) << jog.Err();
  EXPECT_TRUE(AnySpeed(SpeedCommands(record_, "zl")));
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

// It sends no reports any more, so nobody can say that its wheels stand.
TEST_F(JogTest, SaysThatTheStopOfADriveThatRestartedIsNotConfirmed) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.PowerCut();
  drive_.PowerOn();
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "not operational any more")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "*** THE STOP IS NOT CONFIRMED: node 1")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

TEST_F(JogTest, StopsWhenHeartbeatsCease) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.Inject("no-heartbeat-after-ms=0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "sends no heartbeat any more")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, StopsWhenTheDriveTrips) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.LatchError(0x2310);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "reports error 0x2310")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

TEST_F(JogTest, TurnsNothingAfterASetUpThatFailed) {
  drive_.Inject("abort-object=0x1A03");
  const Result result = Motorctl(JogLine("zl", {"2"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "failed: 0x1A03 sub 0")) << result.err;
  EXPECT_FALSE(AnySpeed(SpeedCommands(record_, "zl")));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, DoesNotEnableADriveThatRefusesZero) {
  drive_.Inject("abort-object=0x60FF:2");
  const Result result = Motorctl(JogLine("zl", {"2"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "failed: 0x60FF sub 2 (Target velocity)")) << result.err;
  EXPECT_TRUE(Contains(result.err, "nothing was moved")) << result.err;
  for (const std::string& frame : record_.Frames()) {
    EXPECT_FALSE(StartsWith(frame, "601#2B4060000F00")) << "enabled";
  }
}

// A speed that a crashed host has left behind is gone before the drive is enabled.
TEST_F(JogTest, DoesNotTurnAtASpeedLeftBehind) {
  drive_.WriteObject(0x60FF, 1, 500);
  const Result result = Motorctl(JogLine("zl", {"1"}));
  EXPECT_EQ(result.status, 0) << result.err;
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

}  // namespace
