#include "sim/amps_drive.h"

#include "tests/driver/amps_script.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

class AmpsDriveTest : public NodeFixture {
 protected:
  AmpsDriveTest() : NodeFixture(AmpsDrive()) { node_.PowerOn(); }
};

TEST_F(AmpsDriveTest, IsEnabledByASingleControlwordAndTurnsByItsVelocityObject) {
  WriteAll(FramesOf(amps_script::WholeSetUp()));
  EXPECT_EQ(node_.axis(1).Statusword(), 0x637);
  WriteAll({"601#2BF02F099CFFFFFF"});
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), -100.0);
  EXPECT_NEAR(node_.axis(1).Position(), -0.995 * 4096 * 100 / 60, 1.0);
  WriteAll({"601#2BF02F0970110100"});  // 70000: the low 16 bits are 4464
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 4464.0);
  WriteAll({"601#23FF600064000000"});
  Advance(1000);
  EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 100.0);
}

TEST_F(AmpsDriveTest, Tpdo1HasItsOwnLayoutAndComesOncePerInhibitTime) {
  WriteAll(FramesOf(amps_script::WholeSetUp()));
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(9), Texts{});
  EXPECT_EQ(Advance(1), Texts{"181#3706000000000000"}) << "at rest too";
  // 60 rpm are 4096 counts a second.
  WriteAll({"601#2BF02F093C000000"});
  Advance(95);
  const Texts frames = Advance(1010);
  ASSERT_EQ(frames.size(), 101U);
  EXPECT_EQ(frames[0].substr(0, 12), "181#37060000");
  EXPECT_EQ(GetLittleEndian(FromText(frames[100]).data.begin() + 4, 4) -
                GetLittleEndian(FromText(frames[0]).data.begin() + 4, 4),
            4096U);
}

TEST_F(AmpsDriveTest, SendsNoTpdo1BeforeAPeriodIsSet) {
  node_.Receive(FromText("000#0101"));
  EXPECT_EQ(Advance(100), Texts{});
  WriteAll({"601#2B00180314000000"});
  EXPECT_EQ(Advance(19), Texts{});
  EXPECT_EQ(Advance(1), Texts{"181#5002000000000000"});
  EXPECT_EQ(After("601#2F00180314000000"), Texts{"581#8000180313000706"}) << "two bytes only";
}

TEST_F(AmpsDriveTest, ShowsAnErrorInTpdo1) {
  WriteAll(FramesOf(amps_script::WholeSetUp()));
  node_.Receive(FromText("000#0101"));
  node_.LatchError(0x2310);
  EXPECT_EQ(Advance(10), Texts{"181#1802102300000000"});
}

}  // namespace
}  // namespace sim
