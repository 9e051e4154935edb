// What stops a motor besides its target: halt, quick stop and the loss of the host (CiA 402).
#include "sim/kinco_drive.h"
#include "sim/makes.h"
#include "sim/zl_drive.h"
#include "tests/driver/hls_script.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

// One motor at 100 rpm that slows down by 1000 rpm a second, and by 10000 on its quick ramp.
class StopTest : public NodeFixture {
 protected:
  StopTest() : NodeFixture(FindMake("tt")) {
    node_.PowerOn();
    WriteAll({"601#2F60600003000000", "601#23846000E8030000", "601#2B40600006000000",
              "601#2B40600007000000", "601#2B4060000F000000", "601#23FF600064000000"});
    Advance(100);
    EXPECT_DOUBLE_EQ(Speed(), 100.0);
  }
  double Speed() const { return node_.axis(1).SpeedRpm(); }
  int Status() const { return node_.axis(1).Statusword(); }
  // Milliseconds until the motor rests.
  int TimeToRest() {
    int milliseconds = 0;
    for (; Speed() != 0 && milliseconds < 1000; ++milliseconds) Advance(1);
    return milliseconds;
  }
};

TEST_F(StopTest, TheStatuswordTellsRemoteAlwaysAndTargetReachedWhileEnabled) {
  EXPECT_EQ(Status(), 0x637);
  WriteAll({"601#23FF6000C8000000"});
  EXPECT_EQ(Status(), 0x237);
  Advance(5);
  EXPECT_EQ(Status(), 0x237) << "on the way";
  Advance(5);
  EXPECT_EQ(Status(), 0x637);
  WriteAll({"601#2B40600006000000"});
  EXPECT_EQ(Status(), 0x231);
  Advance(1000);
  EXPECT_EQ(Status(), 0x231) << "rest is not a target here";
}

TEST_F(StopTest, HaltSlowsDownWithTheDecelerationAndGoesOnWhenItIsTakenBack) {
  WriteAll({"601#2B4060000F010000"});
  EXPECT_EQ(Status(), 0x237);
  Advance(50);
  EXPECT_DOUBLE_EQ(Speed(), 50.0);
  EXPECT_EQ(Status(), 0x237);
  Advance(50);
  EXPECT_DOUBLE_EQ(Speed(), 0.0);
  EXPECT_EQ(Status(), 0x637) << "the target of a halt is rest";
  WriteAll({"601#23FF600032000000"});
  Advance(50);
  EXPECT_DOUBLE_EQ(Speed(), 0.0) << "another target does not end it";
  EXPECT_EQ(Status(), 0x637);
  WriteAll({"601#2B4060000F000000"});
  EXPECT_EQ(Status(), 0x237);
  Advance(50);
  EXPECT_DOUBLE_EQ(Speed(), 50.0);
  EXPECT_EQ(Status(), 0x637);
}

TEST_F(StopTest, QuickStopFollowsItsOption) {
  struct Case {
    const char* option;
    int milliseconds;
    int stopping;
    int at_rest;
  };
  for (const Case& expected :
       {Case{"00", 100, 0x250, 0x250}, Case{"01", 100, 0x217, 0x250}, Case{"02", 10, 0x217, 0x250},
        Case{"05", 100, 0x217, 0x617}, Case{"06", 10, 0x217, 0x617}}) {
    SCOPED_TRACE(expected.option);
    WriteAll({std::string("601#2B5A6000") + expected.option + "000000"});
    WriteAll({"601#2B40600002000000"});
    EXPECT_EQ(Status(), expected.stopping);
    EXPECT_EQ(TimeToRest(), expected.milliseconds);
    EXPECT_EQ(Status(), expected.at_rest);
    const bool stays = expected.at_rest == 0x617;
    WriteAll({"601#2B4060000F000000"});
    EXPECT_EQ(Status() & 0xFF, stays ? 0x37 : 0x50) << "enabled again directly";
    WriteAll({"601#2B40600006000000", "601#2B4060000F000000"});
    Advance(200);
    EXPECT_DOUBLE_EQ(Speed(), 100.0);
  }
}

TEST_F(StopTest, AQuickStopThatStaysEndsByDisableVoltage) {
  WriteAll({"601#2B5A600006000000", "601#2B40600002000000"});
  Advance(50);
  WriteAll({"601#2B40600000000000"});
  EXPECT_EQ(Status(), 0x250);
}

TEST_F(StopTest, RefusesOptionsThatItDoesNotKnowAndKeepsTheOneItHas) {
  EXPECT_EQ(After("601#405A600000000000"), Texts{"581#4B5A600002000000"});
  for (const char* option : {"0300", "0400", "0700", "0800", "FFFF"}) {
    EXPECT_EQ(After(std::string("601#2B5A6000") + option + "0000"), Texts{"581#805A600030000906"});
  }
  EXPECT_EQ(After("601#405A600000000000"), Texts{"581#4B5A600002000000"});
  EXPECT_EQ(After("601#4007600000000000"), Texts{"581#4B07600000000000"});
  for (const char* option : {"0400", "FFFF"}) {
    EXPECT_EQ(After(std::string("601#2B076000") + option + "0000"), Texts{"581#8007600030000906"});
  }
  WriteAll({"601#2B5A600006000000", "601#2B07600003000000"});
  node_.Receive(FromText("000#8101"));
  EXPECT_EQ(After("601#405A600000000000"), Texts{"581#4B5A600002000000"}) << "after a reset";
  EXPECT_EQ(After("601#4007600000000000"), Texts{"581#4B07600000000000"});
}

TEST_F(StopTest, EnteringNmtStoppedActsOnTheMotorByTheAbortConnectionOption) {
  struct Case {
    const char* option;
    int milliseconds;
    int status;
  };
  for (const Case& expected :
       {Case{"02", 100, 0x250}, Case{"03", 10, 0x250}, Case{"01", 10, 0x218}}) {
    SCOPED_TRACE(expected.option);
    WriteAll({std::string("601#2B076000") + expected.option + "000000"});
    EXPECT_EQ(After("000#0201"), Texts{}) << "no emergency message in this state";
    EXPECT_EQ(TimeToRest(), expected.milliseconds);
    EXPECT_EQ(Status(), expected.status);
    node_.Receive(FromText("000#8001"));
    if (expected.status == 0x218) break;
    WriteAll({"601#2B40600006000000", "601#2B4060000F000000"});
    Advance(200);
    EXPECT_DOUBLE_EQ(Speed(), 100.0);
    EXPECT_EQ(node_.axis(1).error_code(), 0);
  }
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#4B3F600000810000"});
  EXPECT_EQ(After("601#4003100100000000"), Texts{"581#4303100100810000"});
  EXPECT_EQ(After("601#2B40600080000000"), (Texts{"581#6040600000000000", "081#0000000000000000"}));
}

TEST_F(StopTest, WithoutAnOptionAStoppedNodeGoesOnTurning) {
  node_.Receive(FromText("000#0201"));
  Advance(200);
  EXPECT_DOUBLE_EQ(Speed(), 100.0);
  EXPECT_EQ(Status(), 0x637);
}

TEST_F(StopTest, OffersTheModesThatItHasAndRefusesTorque) {
  EXPECT_EQ(After("601#4002650000000000"), Texts{"581#4302650005000000"});
  EXPECT_EQ(After("601#2F60600004000000"), Texts{"581#8060600030000906"});
  EXPECT_EQ(After("601#4061600000000000"), Texts{"581#4F61600003000000"});
}

TEST(StopOptionsOfMakesTest, TwoMotorsShareThem) {
  Node node(ZlDrive(), {}, [](const Frame&) {});
  node.PowerOn();
  for (const char* frame :
       {"601#2F60600003000000", "601#2B40600006000000", "601#2B4060000F000000",
        "601#23FF600164000000", "601#23FF600264000000", "601#2B5A600006000000"}) {
    node.Receive(FromText(frame));
  }
  for (int i = 0; i < 100; ++i) node.Step();
  EXPECT_DOUBLE_EQ(node.axis(2).SpeedRpm(), 100.0);
  node.Receive(FromText("601#2B40600002000000"));
  for (int i = 0; i < 100; ++i) node.Step();
  EXPECT_EQ(node.axis(1).Statusword(), 0x617);
  EXPECT_EQ(node.axis(2).Statusword(), 0x617);
}

TEST(StopOptionsOfMakesTest, HlsShowsTheStateAlone) {
  Node node(FindMake("hls"), {}, [](const Frame&) {});
  node.PowerOn();
  EXPECT_EQ(node.axis(1).Statusword(), 0x50);
  for (const std::string& request : FramesOf(hls_script::WholeSetUp()))
    node.Receive(FromText(request));
  EXPECT_EQ(node.axis(1).Statusword(), 0x37);
}

}  // namespace
}  // namespace sim
