// What motorctl jog makes sure of: any node, a wheel that does as it is told, an encoder resolution
// that is the right one, and an alarm that is seen.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "jog_bench.h"

namespace {

sim::SimulatedDrive::Options Counting(const std::string& make, std::int32_t counts) {
  sim::SimulatedDrive::Options options = Options(make);
  options.counts_per_revolution = counts;
  return options;
}

Arguments Jog(const Arguments& more) {
  Arguments arguments = {"jog", "--yes", "--ramp", "300"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

class JogAnyNodeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {};

INSTANTIATE_TEST_SUITE_P(Makes, JogAnyNodeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(JogAnyNodeTest, TurnsANodeThatItsClassDoesNotDecode) {
  sim::SimulatedDrive::Options options = Options(GetParam().name);
  options.node_id = 77;
  sim::SimulatedDrive drive(options);
  const Result result =
      Motorctl(Jog({"77", "--make", GetParam().name, "--rpm", "30", "--seconds", "2", "--json"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NEAR(UsualRpm(result.Objects(), 30), 30, 3);
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

class JogChecksTest : public bus::BusTest {
 protected:
  BusRecord record_;
};

// The profile velocity mode is gone: the drive is enabled and does not turn.
TEST_F(JogChecksTest, NoticesAWheelThatDoesNotTurnAtASlowSpeed) {
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(Jog({"1", "--make", "zl", "--rpm", "20", "--rpm2", "20", "--seconds", "30"}));
  ASSERT_TRUE(Eventually([&] { return std::abs(drive.SpeedRpm()) > 15; })) << jog.Err();
  drive.WriteObject(0x6060, 0, 0);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "rpm instead of 20: is it blocked")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

TEST_F(JogChecksTest, NoticesAWheelThatTurnsMuchTooFastAtASlowSpeed) {
  sim::SimulatedDrive drive(Counting("zl", 4096 * 5 / 2));
  const Result result =
      Motorctl(Jog({"1", "--make", "zl", "--rpm", "20", "--rpm2", "20", "--seconds", "30"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "rpm instead of 20: is it blocked, or out of control?"))
      << result.err;
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

TEST_F(JogChecksTest, RefusesAnEncoderResolutionThatTheDriveDoesNotHave) {
  sim::SimulatedDrive drive(Options("kinco"));
  const Result result = Motorctl(Jog({"1", "--make", "kinco", "--rpm", "20", "--seconds", "2",
                                      "--counts-per-revolution", "65536"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "node 1 has 10000 counts per revolution (0x608F), not 65536"))
      << result.err;
  EXPECT_TRUE(SpeedCommands(record_, "kinco").empty());
  EXPECT_EQ(Motorctl(Jog({"1", "--make", "kinco", "--rpm", "20", "--seconds", "1"})).status, 0);
}

TEST_F(JogChecksTest, AsksAboutAnEncoderResolutionThatCannotBeChecked) {
  sim::SimulatedDrive drive(Options("kinco"));
  drive.Inject("abort-object=0x608F/0x06020000");
  Process jog({"jog", "1", "--make", "kinco", "--rpm", "20", "--seconds", "2"}, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(jog.Out(), "[y/N]"); }));
  EXPECT_TRUE(Contains(jog.Out(), "10000 counts per revolution cannot be checked")) << jog.Out();
  jog.Type("n\n");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(SpeedCommands(record_, "kinco").empty());
}

// 45 % too fast is within what a wheel may be off its target: the drive itself tells another speed.
TEST_F(JogChecksTest, ComparesTheMeasuredSpeedWithTheDrivesOwn) {
  sim::SimulatedDrive drive(Counting("zl", 4096 * 145 / 100));
  const Result result =
      Motorctl(Jog({"1", "--make", "zl", "--rpm", "60", "--rpm2", "60", "--seconds", "30"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "node 1 measures 60.0 rpm itself (0x606C sub 1")) << result.err;
  EXPECT_TRUE(Contains(result.err, "the encoder resolution is wrong")) << result.err;
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

// A reader that has stopped reading, as "| less" does at the end of a page.
TEST_F(JogChecksTest, AlarmsThoughNobodyReadsTheData) {
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(Jog({"1", "--make", "zl", "--rpm", "60", "--seconds", "60", "--json"}),
              Output::kFullPipe);
  ASSERT_TRUE(Eventually([&] { return std::abs(drive.SpeedRpm()) > 30; })) << jog.Err();
  bus::SetDown("can0");
  EXPECT_TRUE(Eventually([&] {
    return Contains(jog.Err(), "*** THE STOP IS NOT CONFIRMED: node 1 MAY STILL TURN");
  })) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "the bus can0 failed")) << jog.Err();
}

TEST_F(JogChecksTest, CtrlZEndsItWithAStopAndSaysSo) {
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(Jog({"1", "--make", "zl", "--rpm", "60", "--seconds", "60"}), Output::kTerminal);
  ASSERT_TRUE(Eventually([&] { return std::abs(drive.SpeedRpm()) > 30; })) << jog.Out();
  jog.Type("\x1a");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Out(), "Ctrl-Z ends a jog")) << jog.Out();
  EXPECT_TRUE(Contains(jog.Out(), "measured to stand still")) << jog.Out();
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

TEST_F(JogChecksTest, AJogThatWasInterruptedBeforeItMeasuredIsAFailure) {
  sim::SimulatedDrive drive(Options("tt"));
  Process jog(Jog({"1", "--make", "tt", "--rpm", "60", "--seconds", "60"}));
  EXPECT_TRUE(Eventually([&] { return Contains(jog.Err(), "bus can0"); }));
  jog.Signal(SIGINT);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "interrupted")) << jog.Err();
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

}  // namespace
