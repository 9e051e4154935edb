#include "sim/kinco_drive.h"

#include "tests/driver/kinco_script.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

constexpr const char* kReady = "481#000037060000";

class KincoDriveTest : public NodeFixture {
 protected:
  explicit KincoDriveTest(const Node::Options& options = {}) : NodeFixture(KincoDrive(), options) {
    node_.PowerOn();
  }
  void TurnAt(const std::string& velocity) {
    node_.Receive(FromText("000#0101"));
    WriteAll(FramesOf(kinco_script::WholeSetUp()));
    node_.Receive(FromText("201#" + velocity));
    Advance(1000);
  }
  // TPDO4 frames among those of the next milliseconds.
  Texts StatusWithin(int milliseconds) {
    Texts frames;
    for (const std::string& frame : Advance(milliseconds)) {
      if (frame.substr(0, 4) == "481#") frames.push_back(frame);
    }
    return frames;
  }
};

TEST_F(KincoDriveTest, AcknowledgesTheWholeBringUpWhileItRunsAndTurns) {
  TurnAt("682A0400");  // 2730 * 100
  EXPECT_EQ(After("601#4041600000000000"), Texts{"581#4B41600037060000"});
  EXPECT_NEAR(node_.axis(1).SpeedRpm(), 99.976, 0.001);
  EXPECT_EQ(After("601#406C600000000000"), Texts{"581#436C6000672A0400"});
  TurnAt("98D5FBFF");  // -273000
  EXPECT_NEAR(node_.axis(1).SpeedRpm(), -99.976, 0.001);
}

TEST_F(KincoDriveTest, TellsItsEncoderResolution) {
  EXPECT_EQ(After("601#408F600100000000"), Texts{"581#438F600110270000"});
  EXPECT_EQ(After("601#408F600200000000"), Texts{"581#438F600201000000"});
}

TEST_F(KincoDriveTest, Tpdo1CarriesThePositionOncePerPeriod) {
  TurnAt("00900100");  // 102400 units are 37.5 rpm: 6250 counts a second
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 37.5);
  Texts frames;
  for (const std::string& frame : Advance(1610)) {
    if (frame.substr(0, 4) == "181#") frames.push_back(frame);
  }
  ASSERT_EQ(frames.size(), 161U);
  EXPECT_EQ(frames[0].size(), 12U);
  EXPECT_EQ(GetLittleEndian(FromText(frames[160]).data.begin(), 4) -
                GetLittleEndian(FromText(frames[0]).data.begin(), 4),
            10000U);
}

TEST_F(KincoDriveTest, Tpdo4ComesEvery200MsAndWithin25MsOfAChange) {
  TurnAt("00900100");
  EXPECT_EQ(StatusWithin(1000), Texts(5, kReady));
  node_.PressEmergencyStop();
  EXPECT_EQ(StatusWithin(25), Texts{"481#000050020100"});
  EXPECT_EQ(StatusWithin(100), Texts{});
}

TEST_F(KincoDriveTest, NeedsNoLookAtEveryStep) {
  TurnAt("00900100");
  int events = 0;
  for (Time last{0}; node_.now() < std::chrono::milliseconds(1100); node_.Step()) {
    if (node_.NextEvent() != last) ++events;
    last = node_.NextEvent();
  }
  EXPECT_LT(events, 60);
}

TEST_F(KincoDriveTest, TurnsInItsOwnSpeedModeAndInThatOfTheProfile) {
  WriteAll({"601#2B40600006000000", "601#2B4060000F000000", "601#23FF600000900100"});
  Advance(100);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0) << "no mode";
  WriteAll({"601#2F606000FD000000"});
  EXPECT_EQ(After("601#4061600000000000"), Texts{"581#4F616000FD000000"});
  Advance(100);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 37.5);
  WriteAll({"601#2F60600003000000", "601#23FF600000000000"});
  Advance(100);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0);
  EXPECT_EQ(After("601#4002650000000000"), Texts{"581#4302650005000400"});
}

TEST_F(KincoDriveTest, AnEmergencyStopStopsTheMotorAndIgnoresCommandsWhilePressed) {
  TurnAt("00900100");
  node_.PressEmergencyStop();
  StatusWithin(100);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0);
  WriteAll({"601#2B40600000000000", "601#2B40600006000000", "601#2B4060000F000000"});
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250);
  EXPECT_EQ(After("601#4010200A00000000"), Texts{"581#4B10200A01000000"});
}

TEST_F(KincoDriveTest, TheEmergencyStateOutlastsTheReleaseUntilItIsAcknowledged) {
  TurnAt("00900100");
  node_.PressEmergencyStop();
  Advance(100);
  node_.ReleaseEmergencyStop();
  EXPECT_EQ(StatusWithin(25), Texts{"481#000050020000"});
  WriteAll({"601#2B4060000F000000", "601#2B40600006000000", "601#2B4060000F000000",
            "601#2B40600086000000", "601#2B4060000F000000"});
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250) << "no way out without 0x0000";
  WriteAll({"601#2B40600000000000", "601#2B40600006000000", "601#2B4060000F000000"});
  EXPECT_EQ(StatusWithin(30), Texts{kReady});
}

TEST_F(KincoDriveTest, ASwitchKeepsItsPositionOverResetAndPowerCut) {
  node_.PressEmergencyStop();
  node_.Receive(FromText("000#8101"));
  node_.PowerCut();
  node_.PowerOn();
  WriteAll(FramesOf(kinco_script::WholeSetUp()));
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250);
  node_.PowerCut();
  node_.ReleaseEmergencyStop();
  node_.PowerOn();
  WriteAll(FramesOf(kinco_script::WholeSetUp()));
  EXPECT_EQ(node_.axis(1).Statusword(), 0x637) << "released before it was switched on";
}

TEST_F(KincoDriveTest, AnErrorIsResetByOneControlwordAndEnabledByTheNext) {
  TurnAt("00900100");
  node_.LatchError(0x2310);
  Advance(25);
  EXPECT_EQ(StatusWithin(200), Texts{"481#102318020000"});
  WriteAll({"601#2B4060000F000000"});
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#4B3F600010230000"});
  EXPECT_EQ(After("601#2B40600086000000"), (Texts{"581#6040600000000000", "081#0000000000000000"}));
  EXPECT_EQ(node_.axis(1).Statusword(), 0x231);
  WriteAll({"601#2B4060000F000000"});
  EXPECT_EQ(StatusWithin(25), Texts{kReady});
}

TEST_F(KincoDriveTest, TimedFaultsPressAndReleaseTheEmergencyStop) {
  TurnAt("00900100");
  node_.Inject(ParseFault("emergency-stop-after-ms=300"));
  node_.Inject(ParseFault("emergency-release-after-ms=500"));
  Advance(299);
  EXPECT_EQ(node_.axis(1).Statusword(), 0x637);
  Advance(1);
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250);
  EXPECT_TRUE(node_.axis(1).emergency_pressed());
  Advance(200);
  EXPECT_FALSE(node_.axis(1).emergency_pressed());
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250);
}

class KincoEncoderTest : public KincoDriveTest {
 protected:
  KincoEncoderTest() : KincoDriveTest(Encoder()) {}
  static Node::Options Encoder() {
    Node::Options options;
    options.counts_per_revolution = 65536;
    return options;
  }
};

TEST_F(KincoEncoderTest, VelocityAndPositionFollowTheCountsPerRevolution) {
  // 65536 * 512 / 1875 = 17895 units per rpm; 100 rpm.
  TurnAt("3C4E1B00");
  EXPECT_NEAR(node_.axis(1).SpeedRpm(), 100.0, 0.01);
  EXPECT_NEAR(node_.axis(1).Position(), 0.995 * 65536 * 100 / 60, 15.0);
}

}  // namespace
}  // namespace sim
