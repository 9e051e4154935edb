// Profile position mode (CiA 402, mode 1).
#include <algorithm>
#include <cmath>

#include "sim/kinco_drive.h"
#include "sim/makes.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

// One motor of 32768 counts per revolution.
class PositioningTest : public NodeFixture {
 protected:
  explicit PositioningTest(const Node::Options& options = {})
      : NodeFixture(FindMake("tt"), options) {
    node_.PowerOn();
    WriteAll({"601#2F60600001000000", "601#2B40600006000000", "601#2B40600007000000",
              "601#2B4060000F000000"});
  }
  void Target(std::int32_t counts) {
    std::string request = "601#237A6000";
    for (unsigned i = 0; i < 4; ++i) {
      char byte[3];
      std::snprintf(byte, sizeof byte, "%02X", static_cast<unsigned>(counts) >> (8 * i) & 0xFFU);
      request += byte;
    }
    WriteAll({request});
  }
  // Gives the set-point with these bits above those that enable.
  void Start(const std::string& low_byte) {
    WriteAll({"601#2B406000" + low_byte + "000000", "601#2B4060000F000000"});
  }
  int Status() const { return node_.axis(1).Statusword(); }
  std::int32_t Position() const { return node_.axis(1).Position(); }
  double Speed() const { return node_.axis(1).SpeedRpm(); }
};

TEST_F(PositioningTest, TurnsToTheTargetWithinSpeedAndRampsAndStopsThereExactly) {
  WriteAll({"601#238160006E000000", "601#23836000DC000000", "601#23846000DC000000"});
  Target(327680);
  Advance(50);
  EXPECT_EQ(Position(), 0) << "a target alone moves nothing";
  Start("1F");
  double highest = 0;
  double before = 0;
  int milliseconds = 0;
  for (; (Status() & 0x400) == 0 && milliseconds < 20000; ++milliseconds) {
    Advance(1);
    highest = std::max(highest, Speed());
    // The last count is less than the motor's speed can follow.
    if (Speed() != 0) {
      EXPECT_LE(std::abs(Speed() - before), 0.221) << "at " << milliseconds << " ms";
    }
    EXPECT_LE(Position(), 327680);
    before = Speed();
  }
  EXPECT_EQ(Position(), 327680);
  EXPECT_DOUBLE_EQ(Speed(), 0.0);
  EXPECT_DOUBLE_EQ(highest, 110.0);
  // 10 revolutions at 110 rpm, and half a second more for each ramp's half.
  EXPECT_NEAR(milliseconds, 10 * 60000.0 / 110 + 500, 100);
  Advance(100);
  EXPECT_EQ(Position(), 327680);
}

TEST_F(PositioningTest, ABlockedMotorIsNotAtItsTargetUntilItIsLetGo) {
  Target(30000);
  Start("1F");
  Advance(100);
  node_.Inject(ParseFault("block-motor-after-ms=0"));
  const std::int32_t position = Position();
  Advance(2000);
  EXPECT_EQ(Position(), position);
  EXPECT_EQ(Status(), 0x237);
  node_.ClearFaults();
  Advance(2000);
  EXPECT_EQ(Position(), 30000);
  EXPECT_EQ(Status(), 0x637);
}

TEST_F(PositioningTest, ReachesEveryTargetOnTheQuickRampAtFullSpeed) {
  for (const std::int32_t target : {1, 0, -1, 100, -100, 3000, 1000000, -1000000, 0}) {
    Target(target);
    Start("3F");
    Advance(1500);
    EXPECT_EQ(Position(), target);
    EXPECT_EQ(Status(), 0x637);
  }
}

TEST_F(PositioningTest, AcknowledgesASetPointUntilItsBitIsTakenBack) {
  Target(32768);
  WriteAll({"601#2B4060001F000000"});
  EXPECT_EQ(Status(), 0x1237);
  Advance(1000);
  EXPECT_EQ(Status(), 0x1637);
  EXPECT_EQ(Position(), 32768);
  Target(0);
  WriteAll({"601#2B4060001F000000"});
  Advance(1000);
  EXPECT_EQ(Position(), 32768) << "no new edge";
  WriteAll({"601#2B4060000F000000"});
  EXPECT_EQ(Status(), 0x637);
}

TEST_F(PositioningTest, OneSetPointWaitsForTheOneBefore) {
  Target(327680);
  Start("1F");
  Target(-32768);
  Start("1F");
  EXPECT_EQ(Status(), 0x1237) << "another has no place";
  Target(5);
  Start("1F");
  std::int32_t highest = 0;
  for (int i = 0; i < 3000; ++i) {
    Advance(1);
    highest = std::max(highest, Position());
  }
  EXPECT_NEAR(highest, 327680, 2);
  EXPECT_EQ(Position(), -32768);
  EXPECT_EQ(Status(), 0x637);
}

TEST_F(PositioningTest, ASetPointAtOnceReplacesTheOneThereIs) {
  Target(327680);
  Start("1F");
  Advance(50);
  Target(-32768);
  Start("3F");
  std::int32_t highest = 0;
  for (int i = 0; i < 2000; ++i) {
    Advance(1);
    highest = std::max(highest, Position());
  }
  EXPECT_LT(highest, 100000);
  EXPECT_EQ(Position(), -32768);
}

TEST_F(PositioningTest, ATargetTooCloseToStopAtIsPassedAndReachedFromBehind) {
  WriteAll({"601#2381600064000000", "601#2384600064000000"});
  Target(327680);
  Start("1F");
  Advance(1000);
  const std::int32_t target = Position() + 100;
  Target(target);
  Start("3F");
  Advance(1000);
  EXPECT_NEAR(Position(), target + 32768 * 5 / 6.0, 500) << "100 rpm take 5/6 of a revolution";
  Advance(5000);
  EXPECT_EQ(Position(), target);
}

TEST_F(PositioningTest, RelativeSetPointsAddUp) {
  Target(-1000);
  for (int i = 0; i < 3; ++i) {
    Start("5F");
    Advance(500);
  }
  EXPECT_EQ(Position(), -3000);
}

TEST_F(PositioningTest, HaltInterruptsIt) {
  WriteAll({"601#2381600064000000"});
  Target(327680);
  Start("1F");
  Advance(1000);
  WriteAll({"601#2B4060000F010000"});
  Advance(100);
  EXPECT_DOUBLE_EQ(Speed(), 0.0);
  EXPECT_EQ(Status(), 0x637);
  WriteAll({"601#2B4060000F000000"});
  EXPECT_EQ(Status(), 0x237);
  Advance(6000);
  EXPECT_EQ(Position(), 327680);
}

TEST_F(PositioningTest, AnotherModeOrStateForgetsTheSetPoint) {
  Target(327680);
  Start("1F");
  Advance(50);
  WriteAll({"601#2B40600006000000", "601#2B4060000F000000"});
  Advance(100);
  const std::int32_t position = Position();
  Advance(1000);
  EXPECT_EQ(Position(), position);
  EXPECT_EQ(Status(), 0x637);
  WriteAll({"601#23FF600064000000"});
  Advance(100);
  EXPECT_EQ(Position(), position) << "a target velocity means nothing here";

  Start("1F");
  Advance(50);
  WriteAll({"601#23FF600000000000", "601#2F60600003000000"});
  Advance(200);
  const std::int32_t stopped = Position();
  EXPECT_LT(stopped, 327680);
  WriteAll({"601#2F60600001000000"});
  Advance(1000);
  EXPECT_EQ(Position(), stopped);
}

class PositioningNearWrapAroundTest : public PositioningTest {
 protected:
  PositioningNearWrapAroundTest() : PositioningTest(Near()) {}
  static Node::Options Near() {
    Node::Options options;
    options.start_positions = {2147483647};
    return options;
  }
};

TEST_F(PositioningNearWrapAroundTest, ARelativeWayRunsOverTheEnd) {
  Target(40000);
  Start("5F");
  Advance(1000);
  EXPECT_EQ(Position(), -2147443649);
  EXPECT_EQ(Status(), 0x637);
}

}  // namespace
}  // namespace sim
