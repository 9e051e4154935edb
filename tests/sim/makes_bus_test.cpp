// Each make as a host meets it: brought up over the bus, turning, reporting its position.
#include <cmath>
#include <cstdint>

#include "sim/makes.h"
#include "tests/driver/makes.h"
#include "tests/sim/candump_text.h"
#include "tests/sim/drive_on_bus.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

class MakesOnBusTest : public DriveOnBus {
 protected:
  static SimulatedDrive::Options Of(const std::string& make) {
    SimulatedDrive::Options options;
    options.make = make;
    return options;
  }

  // Turns as far as the positions of 51 consecutive TPDO1 tell, in counts.
  static std::int32_t CountsIn50Periods(bus::FarEnd& host, const std::string& tpdo1,
                                        std::size_t first_byte) {
    host.Forget();
    std::vector<std::uint32_t> positions;
    EXPECT_TRUE(host.WaitFrames(80, milliseconds(10000)));
    for (const std::string& text : host.Frames()) {
      if (text.substr(0, 4) != tpdo1) continue;
      const Frame frame = FromText(text);
      positions.push_back(
          GetLittleEndian(frame.data.begin() + static_cast<std::ptrdiff_t>(first_byte), 4));
    }
    if (positions.size() < 51) {
      ADD_FAILURE() << "only " << positions.size() << " TPDO1";
      return 0;
    }
    return static_cast<std::int32_t>(positions[50] - positions[0]);
  }
};

class EveryMakeOnBusTest : public MakesOnBusTest,
                           public ::testing::WithParamInterface<tested::Make> {};

TEST_P(EveryMakeOnBusTest, TakesItsSetUpTurnsAndReports) {
  const tested::Make& make = GetParam();
  bus::FarEnd host("can0");
  SimulatedDrive drive(Of(make.name));
  ASSERT_TRUE(host.WaitFrames(1));
  WriteAll(host, FramesOf(make.script));
  host.Send("000#0101");
  host.Send(make.backwards);
  EXPECT_TRUE(Eventually([&] { return drive.SpeedRpm() == -60.0; }));
  // Half a second at one revolution in each.
  EXPECT_NEAR(CountsIn50Periods(host, "181#", make.reports.offset),
              -0.5 * make.reports.counts_per_revolution, 1);
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryMakeOnBusTest, ::testing::ValuesIn(tested::Makes()),
                         [](const ::testing::TestParamInfo<tested::Make>& test) {
                           return test.param.name;
                         });

TEST_F(MakesOnBusTest, TtWakesUp) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options = Of("tt");
  options.inactive = true;
  SimulatedDrive drive(options);
  host.Send("601#4040600000000000");
  EXPECT_FALSE(host.WaitFrames(1, milliseconds(150))) << "still inactive";
  host.Send("001#1010");
  ASSERT_TRUE(host.WaitFrames(2));
  EXPECT_EQ(host.Frames(), (Texts{"701#00", "081#0000000000000000"}));
  WriteAll(host, FramesOf(tt_script::WholeSetUp()));
}

TEST_F(MakesOnBusTest, HlsTakesParametersOnChannelZeroAndReportsOnAnotherIdentifier) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options = Of("hls");
  options.tpdo1_id = 0x180;
  SimulatedDrive drive(options);
  ASSERT_TRUE(host.WaitFrames(1));
  WriteAll(host, FramesOf(hls_script::WholeSetUp()));
  EXPECT_EQ(Exchange(host, "600#2300330078563412"), Texts{"580#6000330000000000"});
  host.Send("000#0101");
  host.Send("201#A8FDFFFF");
  EXPECT_TRUE(Eventually([&] { return drive.SpeedRpm() == -60.0; }));
  EXPECT_NEAR(CountsIn50Periods(host, "180#", 0), -65536, 1);
}

TEST_F(MakesOnBusTest, KincoComesBackFromAnEmergencyStop) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Of("kinco"));
  ASSERT_TRUE(host.WaitFrames(1));
  WriteAll(host, FramesOf(kinco_script::WholeSetUp()));
  host.Send("000#0101");
  host.Send("201#0070FEFF");  // -102400 units are -37.5 rpm
  EXPECT_TRUE(Eventually([&] { return drive.SpeedRpm() == -37.5; }));

  const auto reports = [&host](const char* status) {
    for (const std::string& frame : host.Frames()) {
      if (frame == status) return true;
    }
    return false;
  };
  EXPECT_TRUE(Eventually([&] { return reports("481#000037060000"); }));
  drive.PressEmergencyStop();
  EXPECT_TRUE(Eventually([&] { return reports("481#000050020100") && drive.SpeedRpm() == 0.0; }));
  drive.ReleaseEmergencyStop();
  EXPECT_TRUE(Eventually([&] { return reports("481#000050020000"); }));
  for (const char* request :
       {"601#2B40600000000000", "601#2B40600006000000", "601#2B4060000F000000"}) {
    host.Send(request);
  }
  host.Forget();
  EXPECT_TRUE(Eventually([&] { return reports("481#000037060000"); }));
  EXPECT_EQ(drive.Statusword(), 0x637);
}

TEST_F(MakesOnBusTest, AReceivePdoIsHeardOnAnyIdentifierItIsLinkedTo) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options = Of("kinco");
  SimulatedDrive one(options);
  options.node_id = 2;
  SimulatedDrive two(options);
  ASSERT_TRUE(host.WaitFrames(2));
  // An RPDO on an identifier that drives send on: heard by the one that was told so.
  WriteAll(host, {"601#2300140101020080", "601#2300140182010000", "601#230016012000FF60",
                  "601#2F00160001000000"});
  host.Send("000#0100");
  EXPECT_TRUE(Eventually([&] {
    return one.State() == NmtState::kOperational && two.State() == NmtState::kOperational;
  }));
  host.Send("182#00010000");
  EXPECT_EQ(Exchange(host, "601#40FF600000000000"), Texts{"581#43FF600000010000"});
  EXPECT_EQ(one.Received().pdo, 1U);
  EXPECT_EQ(two.Received().pdo, 0U);
}

TEST_F(MakesOnBusTest, EachMakeStopsWhenTheHeartbeatOfItsHostCeases) {
  bus::FarEnd host("can0");
  for (const Make* make : AllMakes()) {
    SCOPED_TRACE(make->name);
    host.Forget();
    SimulatedDrive drive(Of(std::string(make->name)));
    ASSERT_TRUE(host.WaitFrames(1)) << "its boot-up message";
    const std::string velocity = make->name == "zl" ? "601#23FF6001" : "601#23FF6000";
    WriteAll(host, {"601#2F60600003000000", "601#2B40600006000000", "601#2B4060000F000000",
                    velocity + "64000000", "601#2B07600003000000", "601#23161001F4017F00"});
    for (int i = 0; i < 10; ++i) {
      host.Send("77F#05");
      std::this_thread::sleep_for(milliseconds(50));
    }
    EXPECT_NE(drive.SpeedRpm(), 0.0);
    host.Forget();
    EXPECT_TRUE(Eventually([&] { return drive.SpeedRpm() == 0.0; }));
    ASSERT_TRUE(host.WaitFrames(1));
    EXPECT_EQ(host.Frames()[0], "081#3081110000000000");
    EXPECT_TRUE(Eventually([&] { return (drive.Statusword() & 0xFFU) == 0x50; }));
  }
}

}  // namespace
}  // namespace sim
