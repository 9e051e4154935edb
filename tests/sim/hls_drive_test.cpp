#include "sim/hls_drive.h"

#include "tests/driver/hls_script.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

class HlsDriveTest : public NodeFixture {
 protected:
  explicit HlsDriveTest(const Node::Options& options = {}) : NodeFixture(HlsDrive(), options) {
    node_.PowerOn();
  }
};

TEST_F(HlsDriveTest, AcknowledgesTheWholeBringUpAndTurns) {
  WriteAll(FramesOf(hls_script::WholeSetUp()));
  EXPECT_EQ(After("601#4041600000000000"), Texts{"581#4B41600037000000"});
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#18FCFFFF"));  // -1000 tenths
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), -100.0);
  EXPECT_NEAR(node_.axis(1).Position(), -0.995 * 131072 * 100 / 60, 1.0);
  EXPECT_EQ(After("601#406C600000000000"), Texts{"581#436C600018FCFFFF"});
}

TEST_F(HlsDriveTest, Tpdo1ComesOncePerPeriodHoweverFastThePositionChanges) {
  WriteAll(FramesOf(hls_script::WholeSetUp()));
  node_.Receive(FromText("000#0101"));
  // 60 rpm are 131072 counts a second.
  node_.Receive(FromText("201#58020000"));
  Advance(100);
  Texts frames = Advance(1010);
  ASSERT_EQ(frames.size(), 101U);
  EXPECT_EQ(frames[0].substr(0, 4), "181#");
  EXPECT_EQ(frames[0].size(), 12U);
  EXPECT_EQ(GetLittleEndian(FromText(frames[100]).data.begin(), 4) -
                GetLittleEndian(FromText(frames[0]).data.begin(), 4),
            131072U);
}

TEST_F(HlsDriveTest, Tpdo4TellsErrorAndStatusEveryTwoSecondsAndOnChange) {
  WriteAll(FramesOf(hls_script::WholeSetUp()));
  WriteAll({"601#2F001802FF000000", "601#2F00180500000000"});  // no TPDO1
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(1000), Texts{"481#00003700"});
  EXPECT_EQ(Advance(1000), Texts{"701#05"}) << "2 s since the bring-up";
  EXPECT_EQ(Advance(10), Texts{"481#00003700"});
  // The inhibit time of 200 ms holds the change back.
  node_.LatchError(0x2310);
  EXPECT_EQ(Advance(190), Texts{});
  EXPECT_EQ(Advance(10), Texts{"481#10231800"});
}

TEST_F(HlsDriveTest, TakesOneOrTwoBytesForTheTimesOfAPdo) {
  WriteAll({"601#2F0018052C000000"});
  EXPECT_EQ(After("601#4000180500000000"), Texts{"581#4B0018052C000000"});
  WriteAll({"601#2B0018052C010000"});
  EXPECT_EQ(After("601#4000180500000000"), Texts{"581#4B0018052C010000"});
}

TEST_F(HlsDriveTest, ClearsAnErrorByItsOwnObjectNotByTheControlword) {
  node_.LatchError(0x2310);
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#4B3F600010230000"});
  WriteAll({"601#2B40600080000000"});
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#4B3F600010230000"});
  EXPECT_EQ(After("601#2B03460001000000"), (Texts{"581#6003460000000000", "081#0000000000000000"}));
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#4B3F600000000000"});
  EXPECT_EQ(node_.axis(1).Statusword(), 0x50);
  EXPECT_EQ(After("601#2B03460002000000"), Texts{"581#8003460031000906"});
}

class HlsAxis2Test : public HlsDriveTest {
 protected:
  HlsAxis2Test() : HlsDriveTest(Axis2()) {}
  static Node::Options Axis2() {
    Node::Options options;
    options.node_id = 2;
    options.tpdo1_id = 0x180;
    return options;
  }
};

TEST_F(HlsAxis2Test, ServesTheParametersOfItsAxisOnChannelZero) {
  EXPECT_EQ(After("600#2B024000C8000000"), Texts{"580#6002400000000000"}) << "current";
  EXPECT_EQ(After("600#2B2A440090010000"), Texts{"580#602A440000000000"}) << "highest current";
  EXPECT_EQ(After("600#2300430078563412"), Texts{"580#6000430000000000"}) << "gain";
  EXPECT_EQ(After("600#4000430000000000"), Texts{"580#4300430078563412"});
  EXPECT_EQ(After("602#4000230000000000"), Texts{"582#4300230078563412"}) << "the same object";
  EXPECT_EQ(node_.received().sdo, 5U);
}

TEST_F(HlsAxis2Test, AbortsOnChannelZeroWithTheIndexOfTheRequest) {
  EXPECT_EQ(After("600#4003430000000000"), Texts{"580#8003430000000206"});
  EXPECT_EQ(After("600#2B00430001000000"), Texts{"580#8000430013000706"}) << "two of four bytes";
  node_.Inject(ParseFault("abort-object=0x4300"));
  EXPECT_EQ(After("600#4000430000000000"), Texts{"580#8000430000000008"});
}

TEST_F(HlsAxis2Test, LeavesOtherAxesOnChannelZeroToTheirDrives) {
  EXPECT_EQ(After("600#4000330000000000"), Texts{});
  EXPECT_EQ(After("600#4000230000000000"), Texts{});
  EXPECT_EQ(After("600#4003600000000000"), Texts{});
  EXPECT_EQ(node_.received().sdo, 0U);
}

TEST_F(HlsAxis2Test, Tpdo1CanHaveAnotherIdentifierFromPowerOn) {
  node_.Receive(FromText("602#23001A0120006360"));
  node_.Receive(FromText("602#2F001A0001000000"));
  node_.Receive(FromText("602#2F0018050A000000"));
  node_.Receive(FromText("000#0102"));
  EXPECT_EQ(Advance(10), Texts{"180#00000000"});
  node_.Receive(FromText("000#8202"));
  EXPECT_EQ(node_.dictionary().Get(0x1800, 1), 0x180U);
}

TEST(HlsHighNodeTest, AxisNumbersAreTheLowFourBitsAndIndicesWrapAround) {
  Texts sent;
  Node::Options options;
  options.node_id = 31;
  Node node(HlsDrive(), options, [&sent](const Frame& frame) { sent.push_back(ToText(frame)); });
  node.PowerOn();
  sent.clear();
  node.Receive(FromText("600#4000130000000000"));  // 0xF000 + 0x2300
  EXPECT_EQ(sent, Texts{"580#4300130000000000"});
}

}  // namespace
}  // namespace sim
