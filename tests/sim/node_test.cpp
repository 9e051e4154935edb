#include "sim/node.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string_view>

#include "sim/makes.h"
#include "sim/zl_drive.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

// A dual-motor drive as node 1.
class NodeTest : public NodeFixture {
 protected:
  explicit NodeTest(const Node::Options& options = {}) : NodeFixture(ZlDrive(), options) {}

  void BringUp() {
    WriteAll({
        "601#2B122001C8000000", "601#2B122002C8000000", "601#2B14200196000000",
        "601#2B14200296000000", "601#2B1520012C010000", "601#2B1520022C010000",
        "601#2B1620012C010000", "601#2B1620022C010000", "601#2B0F200000000000",
        "601#2F60600003000000", "601#2383600100000000", "601#2383600200000000",
        "601#2384600100000000", "601#2384600200000000", "601#2B40600006000000",
        "601#2B40600007000000", "601#2B4060000F000000", "601#2300140101020080",
        "601#2F00160000000000", "601#230016012001FF60", "601#230016022002FF60",
        "601#2F00160002000000", "601#2300140101020000", "601#2300180181010080",
        "601#2301180181020080", "601#2302180181030080", "601#2303180181040080",
        "601#2F001A0000000000", "601#23001A0120016460", "601#23001A0220026460",
        "601#2F001A0002000000", "601#2F001802FF000000", "601#2B00180514000000",
        "601#2300180181010000", "601#2F031A0000000000", "601#23031A0120003F60",
        "601#23031A0220004160", "601#2F031A0002000000", "601#2F031802FF000000",
        "601#2B031805A00F0000", "601#2303180181040000",
    });
  }
};

TEST_F(NodeTest, IsSilentAndDeafUntilPoweredOn) {
  EXPECT_EQ(After("601#4000100000000000"), Texts{});
  EXPECT_EQ(After("000#0101"), Texts{});
  EXPECT_EQ(Advance(10), Texts{});
  EXPECT_EQ(node_.nmt_state(), NmtState::kPowerOff);
}

TEST_F(NodeTest, BootsUpIntoPreOperational) {
  node_.PowerOn();
  EXPECT_EQ(Sent(), Texts{"701#00"});
  EXPECT_EQ(node_.nmt_state(), NmtState::kPreOperational);
  node_.PowerOn();
  EXPECT_EQ(Sent(), Texts{}) << "it is on already";
}

TEST_F(NodeTest, FollowsNmtCommandsToItselfAndToAll) {
  node_.PowerOn();
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(node_.nmt_state(), NmtState::kOperational);
  node_.Receive(FromText("000#0200"));
  EXPECT_EQ(node_.nmt_state(), NmtState::kStopped);
  node_.Receive(FromText("000#8001"));
  EXPECT_EQ(node_.nmt_state(), NmtState::kPreOperational);
  node_.Receive(FromText("000#0100"));
  EXPECT_EQ(node_.nmt_state(), NmtState::kOperational);
  EXPECT_EQ(node_.received().nmt, 4U);
}

TEST_F(NodeTest, IgnoresNmtOfOthersUnknownCommandsAndOtherLengths) {
  node_.PowerOn();
  for (const char* frame : {"000#0102", "000#0501", "000#01", "000#010100"}) {
    EXPECT_EQ(After(frame), Texts{}) << frame;
    EXPECT_EQ(node_.nmt_state(), NmtState::kPreOperational) << frame;
  }
}

TEST_F(NodeTest, ServesNoSdoWhenStopped) {
  node_.PowerOn();
  node_.Receive(FromText("000#0201"));
  EXPECT_EQ(After("601#4000100000000000"), Texts{});
  node_.Receive(FromText("000#8001"));
  EXPECT_EQ(After("601#4000100000000000"), Texts{"581#4300100092010200"});
}

TEST_F(NodeTest, TakesOnlyEightByteSdoFramesOfItsOwn) {
  node_.PowerOn();
  EXPECT_EQ(After("601#40001000000000"), Texts{});
  EXPECT_EQ(After("602#4000100000000000"), Texts{});
}

TEST_F(NodeTest, ResetNodeRestoresEverything) {
  node_.PowerOn();
  node_.Receive(FromText("601#2B122001C8000000"));
  node_.Receive(FromText("601#2300180181010080"));
  node_.Receive(FromText("601#2B40600006000000"));
  EXPECT_EQ(After("000#8101"), Texts{"701#00"});
  EXPECT_EQ(node_.nmt_state(), NmtState::kPreOperational);
  EXPECT_EQ(node_.dictionary().Get(0x2012, 1), 0U);
  EXPECT_EQ(node_.dictionary().Get(0x1800, 1), 0x181U);
  EXPECT_EQ(node_.axis(1).Statusword(), 0x250);
}

TEST_F(NodeTest, ResetCommunicationRestoresTheCommunicationObjectsOnly) {
  node_.PowerOn();
  node_.Receive(FromText("601#2B122001C8000000"));
  node_.Receive(FromText("601#2300180181010080"));
  node_.Receive(FromText("601#2B40600006000000"));
  EXPECT_EQ(After("000#8201"), Texts{"701#00"});
  EXPECT_EQ(node_.dictionary().Get(0x2012, 1), 0xC8U);
  EXPECT_EQ(node_.dictionary().Get(0x1800, 1), 0x181U);
  EXPECT_EQ(node_.axis(1).Statusword(), 0x231);
}

TEST_F(NodeTest, ProducesHeartbeatsWithItsState) {
  node_.PowerOn();
  EXPECT_EQ(Advance(100), Texts{});
  EXPECT_EQ(After("601#2B17100014000000"), Texts{"581#6017100000000000"});
  EXPECT_EQ(Advance(19), Texts{});
  EXPECT_EQ(Advance(1), Texts{"701#7F"});
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(40), (Texts{"701#05", "701#05"}));
  node_.Receive(FromText("000#0201"));
  EXPECT_EQ(Advance(20), Texts{"701#04"});
  node_.Receive(FromText("000#8001"));
  node_.Receive(FromText("601#2B17100000000000"));
  EXPECT_EQ(Advance(100), Texts{});
}

TEST_F(NodeTest, TellsItsIdentity) {
  node_.PowerOn();
  EXPECT_EQ(After("601#4018100000000000"), Texts{"581#4F18100004000000"});
  EXPECT_EQ(After("601#4018100100000000"), Texts{"581#4318100101FFFF00"});
  EXPECT_EQ(After("601#4018100400000000"), Texts{"581#4318100401000000"});
  EXPECT_EQ(After("601#4014100000000000"), Texts{"581#4314100081000000"});
}

TEST_F(NodeTest, AcknowledgesTheWholeBringUpAndTurnsBothMotors) {
  node_.PowerOn();
  BringUp();
  EXPECT_EQ(node_.received().sdo, 41U);
  EXPECT_EQ(Advance(50), Texts{}) << "no PDO before the NMT start";
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#640000009CFFFFFF"));
  EXPECT_EQ(node_.received().pdo, 1U);
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 100.0);
  EXPECT_DOUBLE_EQ(node_.axis(2).SpeedRpm(), -100.0);
  EXPECT_EQ(After("601#406C600200000000"), Texts{"581#436C60029CFFFFFF"});
  // A second at 100 rpm, less 5 ms for the ramp.
  EXPECT_NEAR(node_.axis(1).Position(), 0.995 * 4096 * 100 / 60, 1.0);
  EXPECT_NEAR(node_.axis(2).Position(), -0.995 * 4096 * 100 / 60, 1.0);
}

TEST_F(NodeTest, Tpdo1CarriesThePositionsEveryPeriodAndTpdo4TheStatusOnChangeAndEveryTwoSeconds) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(9), Texts{});
  EXPECT_EQ(Advance(1), Texts{"181#0000000000000000"});
  node_.Receive(FromText("201#D403000000000000"));
  Texts frames = Advance(100);
  ASSERT_EQ(frames.size(), 12U);
  EXPECT_EQ(frames.front(), "481#0000000037023706") << "on its way to 980 rpm";
  EXPECT_EQ(frames[10], "481#0000000037063706") << "there after 98 ms";
  frames = Advance(1999);
  ASSERT_EQ(frames.size(), 200U);
  EXPECT_EQ(frames[198].substr(0, 4), "181#");
  EXPECT_EQ(frames[199], "481#0000000037063706");
}

TEST_F(NodeTest, AtConstantSpeedEveryPeriodGainsTheSameCounts) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  // 60 rpm are 4096 counts a second, 40.96 a period.
  node_.Receive(FromText("201#3C00000000000000"));
  Advance(100);
  std::uint32_t before = 0;
  std::uint32_t first = 0;
  const Texts frames = Advance(1010);
  for (std::size_t i = 0; i <= 100; ++i) {
    const std::uint32_t position = GetLittleEndian(FromText(frames[i]).data.begin(), 4);
    if (i == 0) first = position;
    if (i > 0) {
      EXPECT_GE(position - before, 40U);
      EXPECT_LE(position - before, 41U);
    }
    before = position;
  }
  EXPECT_EQ(before - first, 4096U);
}

TEST_F(NodeTest, ReportsAFaultByEmergencyStatuswordAndErrorCode) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#6400000064000000"));
  Advance(100);
  Sent();
  node_.LatchError(0x2310);
  EXPECT_EQ(Sent(), Texts{"081#1023030000000000"});
  EXPECT_EQ(After("601#4041600000000000"), Texts{"581#434160001F021F02"});
  Advance(10);
  EXPECT_EQ(After("601#4041600000000000"), Texts{"581#4341600018021802"});
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#433F600010230000"});
  EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100003000000"});
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0);
  EXPECT_DOUBLE_EQ(node_.axis(2).SpeedRpm(), 0.0);

  EXPECT_EQ(After("601#2B40600080000000"), (Texts{"581#6040600000000000", "081#0000000000000000"}));
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#433F600000000000"});
  EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100000000000"});
}

TEST_F(NodeTest, ShowsTheErrorCodeOfTheSecondMotorInTheUpperHalf) {
  node_.PowerOn();
  node_.LatchError(0x3210, 2);
  EXPECT_EQ(After("601#433F600000000000"), Texts{"581#433F600000001032"});
  EXPECT_THROW(node_.LatchError(1, 3), std::out_of_range);
}

TEST_F(NodeTest, ATooShortPdoIsReportedAndNotProcessed) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(After("201#64000000640000"), Texts{"081#1082000000000000"});
  Advance(10);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0);
}

TEST_F(NodeTest, RefusesAnUnknownModeOfOperation) {
  node_.PowerOn();
  EXPECT_EQ(After("601#2F606000FD000000"), Texts{"581#8060600030000906"});
  EXPECT_EQ(After("601#2F60600003000000"), Texts{"581#6060600000000000"});
  EXPECT_EQ(After("601#4061600000000000"), Texts{"581#4F61600003000000"});
}

TEST_F(NodeTest, APowerCutSilencesItUntilItBootsUpWithPowerOnValues) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#6400000064000000"));
  Advance(100);
  node_.PowerCut();
  EXPECT_EQ(Advance(100), Texts{});
  EXPECT_EQ(After("601#4000100000000000"), Texts{});
  node_.PowerOn();
  EXPECT_EQ(Sent(), Texts{"701#00"});
  EXPECT_EQ(Advance(100), Texts{});
  EXPECT_EQ(node_.axis(1).Position(), 0);
  EXPECT_EQ(node_.dictionary().Get(0x1A00, 0), 0U);
}

TEST_F(NodeTest, TimedFaultsStrikeAtTheirTime) {
  node_.PowerOn();
  node_.Inject(ParseFault("error-after-ms=5/0x2310"));
  node_.Inject(ParseFault("power-cut-after-ms=10"));
  node_.Inject(ParseFault("power-on-after-ms=20"));
  EXPECT_EQ(Advance(4), Texts{});
  EXPECT_EQ(node_.NextEvent(), std::chrono::milliseconds(5));
  EXPECT_EQ(Advance(1), Texts{"081#1023030000000000"});
  EXPECT_EQ(Advance(5), Texts{});
  EXPECT_EQ(node_.nmt_state(), NmtState::kPowerOff);
  EXPECT_EQ(node_.NextEvent(), std::chrono::milliseconds(20));
  EXPECT_EQ(Advance(10), Texts{"701#00"});
  EXPECT_EQ(node_.NextEvent(), Time::max());
}

TEST_F(NodeTest, LosesItsHeartbeatWhileTheRestWorks) {
  node_.PowerOn();
  node_.Receive(FromText("601#2B1710000A000000"));
  node_.Inject(ParseFault("no-heartbeat-after-ms=15"));
  EXPECT_EQ(Advance(50), Texts{"701#7F"});
  EXPECT_EQ(After("601#4000100000000000"), Texts{"581#4300100092010200"});
  node_.ClearFaults();
  EXPECT_EQ(Advance(10), Texts{"701#7F"});
}

TEST_F(NodeTest, LosesItsPositionReportsWhileTheRestWorks) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Inject(ParseFault("no-reports-after-ms=15"));
  EXPECT_EQ(Advance(2000), (Texts{"181#0000000000000000", "481#0000000037063706"}));
  node_.ClearFaults();
  EXPECT_EQ(Advance(10), Texts{"181#0000000000000000"});
}

TEST_F(NodeTest, ABlockedMotorStandsUntilItIsLetGo) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#640000009CFFFFFF"));
  Advance(100);
  node_.Inject(ParseFault("block-motor-after-ms=0"));
  Advance(1);
  const std::int32_t position = node_.axis(1).Position();
  Advance(100);
  EXPECT_EQ(node_.axis(1).SpeedRpm(), 0);
  EXPECT_EQ(node_.axis(2).SpeedRpm(), 0);
  EXPECT_EQ(node_.axis(1).Position(), position);
  EXPECT_EQ(node_.axis(1).Statusword() & 0x6F, 0x27) << "the drive knows nothing of it";
  node_.Receive(FromText("000#8101"));
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#640000009CFFFFFF"));
  Advance(100);
  EXPECT_EQ(node_.axis(1).SpeedRpm(), 0) << "a reset frees no wheel";
  node_.ClearFaults();
  Advance(100);
  EXPECT_EQ(node_.axis(1).SpeedRpm(), 100);
}

TEST_F(NodeTest, AnAbortedOrIgnoredWriteIsNotPerformed) {
  node_.PowerOn();
  node_.Inject(ParseFault("abort-write=1/0x06090030"));
  node_.Inject(ParseFault("ignore-write=2"));
  EXPECT_EQ(After("601#2F60600003000000"), Texts{"581#8060600030000906"});
  EXPECT_EQ(After("601#2F60600003000000"), Texts{});
  EXPECT_EQ(node_.dictionary().Get(0x6060, 0), 0U);
  EXPECT_EQ(After("601#2F60600003000000"), Texts{"581#6060600000000000"});
}

TEST_F(NodeTest, BendsItsReplies) {
  node_.PowerOn();
  node_.Inject(ParseFault("duplicate-replies"));
  EXPECT_EQ(After("601#4000100000000000"), (Texts{"581#4300100092010200", "581#4300100092010200"}));
  node_.ClearFaults();
  node_.Inject(ParseFault("truncate-replies=7"));
  EXPECT_EQ(After("601#4000100000000000"), Texts{"581#43001000920102"});
  node_.ClearFaults();
  node_.Inject(ParseFault("wrong-index"));
  EXPECT_EQ(After("601#4000100000000000"), Texts{"581#4301100092010200"});
  node_.ClearFaults();
  node_.Inject(ParseFault("delay-replies-ms=20"));
  EXPECT_EQ(After("601#4000100000000000"), Texts{});
  EXPECT_EQ(node_.NextEvent(), std::chrono::milliseconds(20));
  EXPECT_EQ(Advance(19), Texts{});
  EXPECT_EQ(Advance(1), Texts{"581#4300100092010200"});
}

class NodeNearWrapAroundTest : public NodeTest {
 protected:
  NodeNearWrapAroundTest() : NodeTest(Near()) {}
  static Node::Options Near() {
    Node::Options options;
    options.start_positions = {2147483647, -2147483647 - 1};
    return options;
  }
};

TEST_F(NodeNearWrapAroundTest, PositionsRunOverBothEnds) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(10), Texts{"181#FFFFFF7F00000080"});
  node_.Receive(FromText("201#640000009CFFFFFF"));
  Advance(100);
  EXPECT_LT(node_.axis(1).Position(), -2147480000);
  EXPECT_GT(node_.axis(2).Position(), 2147480000);
}

TEST(NodeIdTest, MustBe1To127) {
  Node::Options options;
  options.node_id = 0;
  EXPECT_THROW(Node(ZlDrive(), options, [](const Frame&) {}), std::invalid_argument);
  options.node_id = 128;
  EXPECT_THROW(Node(ZlDrive(), options, [](const Frame&) {}), std::invalid_argument);
}

TEST(NodeOptionsTest, AreChecked) {
  const auto make_node = [](const Make& make, const Node::Options& options) {
    Node(make, options, [](const Frame&) {});
  };
  Node::Options options;
  options.counts_per_revolution = -1;
  EXPECT_THROW(make_node(ZlDrive(), options), std::invalid_argument);
  options.counts_per_revolution = Node::kMaxCountsPerRevolution + 1;
  EXPECT_THROW(make_node(ZlDrive(), options), std::invalid_argument);
  options = {};
  options.tpdo1_id = 0x800;
  EXPECT_THROW(make_node(ZlDrive(), options), std::invalid_argument);
  options = {};
  options.inactive = true;
  EXPECT_THROW(make_node(ZlDrive(), options), std::invalid_argument);
  EXPECT_NO_THROW(make_node(FindMake("tt"), options));
}

TEST_F(NodeTest, AnEmergencyStopHoldsBothMotorsUntilAcknowledged) {
  node_.PowerOn();
  BringUp();
  node_.Receive(FromText("000#0101"));
  node_.Receive(FromText("201#6400000064000000"));
  Advance(100);
  node_.PressEmergencyStop();
  Advance(100);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 0.0);
  EXPECT_DOUBLE_EQ(node_.axis(2).SpeedRpm(), 0.0);
  node_.ReleaseEmergencyStop();
  WriteAll({"601#2B40600000000000", "601#2B40600006000000", "601#2B4060000F000000"});
  EXPECT_EQ(After("601#4041600000000000"), Texts{"581#4341600037023702"}) << "off at 100 rpm again";
}

TEST(MakeTest, HasAllMakesWithNamesAndProductCodesOfTheirOwn) {
  std::set<std::string_view> names;
  std::set<std::uint32_t> products;
  for (const Make* make : AllMakes()) {
    names.insert(make->name);
    products.insert(make->product_code);
  }
  EXPECT_EQ(names.size(), AllMakes().size());
  EXPECT_EQ(products.size(), AllMakes().size());
}

TEST(MakeTest, IsFoundByName) {
  EXPECT_EQ(&FindMake("zl"), &ZlDrive());
  EXPECT_THROW(FindMake("ZL"), std::invalid_argument);
}

}  // namespace
}  // namespace sim
