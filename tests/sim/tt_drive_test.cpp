#include "sim/tt_drive.h"

#include "tests/driver/tt_script.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

class TtDriveTest : public NodeFixture {
 protected:
  explicit TtDriveTest(const Node::Options& options = {}) : NodeFixture(TtDrive(), options) {}
};

TEST_F(TtDriveTest, AcknowledgesTheWholeBringUpAndTurns) {
  node_.PowerOn();
  EXPECT_EQ(After("601#4040600000000000"), Texts{"581#4B40600000000000"}) << "it is active";
  WriteAll(FramesOf(tt_script::WholeSetUp()));
  EXPECT_EQ(node_.axis(1).Statusword(), 0x637);
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#9CFFFFFF"));
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), -100.0);
  // A second at 100 rpm, less 5 ms for the ramp.
  EXPECT_NEAR(node_.axis(1).Position(), -0.995 * 32768 * 100 / 60, 1.0);
}

TEST_F(TtDriveTest, Tpdo1CarriesThePositionEveryPeriodAndNothingElseIsSent) {
  node_.PowerOn();
  WriteAll(FramesOf(tt_script::WholeSetUp()));
  node_.Receive(FromText("000#0101"));
  // 60 rpm are 32768 counts a second.
  node_.Receive(FromText("201#3C000000"));
  Advance(95);
  const Texts frames = Advance(1010);
  ASSERT_EQ(frames.size(), 101U);
  EXPECT_EQ(frames[0].substr(0, 4), "181#");
  EXPECT_EQ(frames[0].size(), 12U);
  EXPECT_EQ(GetLittleEndian(FromText(frames[100]).data.begin(), 4) -
                GetLittleEndian(FromText(frames[0]).data.begin(), 4),
            32768U);
}

TEST_F(TtDriveTest, SavesOnTheSignatureOnly) {
  node_.PowerOn();
  WriteAll({"601#2310100173617665"});
  EXPECT_EQ(After("601#231010016C6F6164"), Texts{"581#8010100120000008"});
  EXPECT_EQ(After("601#4010100100000000"), Texts{"581#4310100101000000"});
}

class InactiveTtDriveTest : public TtDriveTest {
 protected:
  InactiveTtDriveTest() : TtDriveTest(Inactive()) { node_.PowerOn(); }
  static Node::Options Inactive() {
    Node::Options options;
    options.heartbeat_ms = 10;
    options.inactive = true;
    return options;
  }
};

TEST_F(InactiveTtDriveTest, IsSilentAndDeaf) {
  EXPECT_EQ(Advance(100), Texts{});
  EXPECT_EQ(After("601#4040600000000000"), Texts{});
  EXPECT_EQ(After("000#8100"), Texts{});
  EXPECT_EQ(node_.nmt_state(), NmtState::kPowerOff);
}

TEST_F(InactiveTtDriveTest, WakesUpSomeTimeAfterTheActivationFrame) {
  EXPECT_EQ(After("001#1010"), Texts{});
  EXPECT_EQ(Advance(199), Texts{});
  EXPECT_EQ(node_.NextEvent(), std::chrono::milliseconds(200));
  EXPECT_EQ(Advance(1), (Texts{"701#00", "081#0000000000000000"}));
  EXPECT_EQ(After("601#4040600000000000"), Texts{"581#4B40600000000000"});
  EXPECT_EQ(After("000#8101"), Texts{"701#00"}) << "a reset leaves it active";
  EXPECT_EQ(After("001#1010"), Texts{});
  EXPECT_EQ(Advance(9), Texts{});
}

TEST_F(InactiveTtDriveTest, TakesNoOtherFrameForTheActivation) {
  for (const char* frame : {"002#1010", "001#10", "001#101010", "001#1011", "001#1110"}) {
    node_.Receive(FromText(frame));
  }
  EXPECT_EQ(Advance(300), Texts{});
}

TEST_F(InactiveTtDriveTest, IsInactiveAgainAfterAPowerCut) {
  node_.Receive(FromText("001#1010"));
  node_.PowerCut();
  EXPECT_EQ(Advance(300), Texts{}) << "the activation is forgotten";
  node_.PowerOn();
  EXPECT_EQ(Advance(300), Texts{});
  node_.Receive(FromText("001#1010"));
  EXPECT_EQ(Advance(200), (Texts{"701#00", "081#0000000000000000"}));
}

}  // namespace
}  // namespace sim
