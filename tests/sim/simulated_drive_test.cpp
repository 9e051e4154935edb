#include "sim/simulated_drive.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "processes.h"
#include "tests/sim/candump_text.h"
#include "tests/sim/drive_on_bus.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

class SimulatedDriveTest : public DriveOnBus {
 protected:
  static SimulatedDrive::Options Plain() { return {}; }

  // TPDO1 with both positions every `period_ms`, RPDO1 with both target velocities.
  static void BringUp(bus::FarEnd& host, const std::string& period_times_two) {
    WriteAll(host, {"601#2F60600003000000", "601#2B40600006000000", "601#2B40600007000000",
                    "601#2B4060000F000000", "601#2300140101020080", "601#2F00160000000000",
                    "601#230016012001FF60", "601#230016022002FF60", "601#2F00160002000000",
                    "601#2300140101020000", "601#2300180181010080", "601#2F001A0000000000",
                    "601#23001A0120016460", "601#23001A0220026460", "601#2F001A0002000000",
                    "601#2F001802FF000000", "601#2B001805" + period_times_two + "0000",
                    "601#2300180181010000"});
  }
};

TEST_F(SimulatedDriveTest, SendsItsBootUpMessageWhenPluggedIn) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  EXPECT_EQ(host.Frames(), Texts{"701#00"});
  EXPECT_EQ(drive.State(), NmtState::kPreOperational);
}

TEST_F(SimulatedDriveTest, AnswersSdoRequestsByteForByte) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  EXPECT_EQ(Exchange(host, "601#4041600000000000"), Texts{"581#4341600050025002"});
  EXPECT_EQ(Exchange(host, "601#2F60600003000000"), Texts{"581#6060600000000000"});
  EXPECT_EQ(Exchange(host, "601#4099990000000000"), Texts{"581#8099990000000206"});
  EXPECT_EQ(drive.Received().sdo, 3U);
}

TEST_F(SimulatedDriveTest, IgnoresFramesOfOtherNodesExtendedAndRemoteFrames) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  for (const char* frame : {"602#4041600000000000", "00000601#4041600000000000", "601#R8"}) {
    host.Send(frame);
  }
  EXPECT_EQ(Exchange(host, "601#4001100000000000"), Texts{"581#4F01100000000000"});
  EXPECT_EQ(drive.Received().sdo, 1U);
}

TEST_F(SimulatedDriveTest, PositionsOfConsecutivePdosDifferBySpeedTimesPeriod) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  BringUp(host, "1400");
  host.Send("000#0101");
  // 60 rpm are 40.96 counts in 10 ms, -600 rpm are 409.6.
  host.Send("201#3C000000A8FDFFFF");
  EXPECT_TRUE(Eventually([&] { return drive.SpeedRpm(1) == 60.0 && drive.SpeedRpm(2) == -600.0; }));
  host.Forget();
  ASSERT_TRUE(host.WaitFrames(101, milliseconds(10000)));
  Texts frames = host.Frames();
  frames.resize(101);
  std::vector<std::uint32_t> first;
  std::vector<std::uint32_t> second;
  for (const std::string& frame : frames) {
    ASSERT_EQ(frame.substr(0, 4), "181#");
    first.push_back(GetLittleEndian(FromText(frame).data.begin(), 4));
    second.push_back(GetLittleEndian(FromText(frame).data.begin() + 4, 4));
  }
  for (std::size_t i = 1; i < first.size(); ++i) {
    EXPECT_TRUE(first[i] - first[i - 1] == 40 || first[i] - first[i - 1] == 41) << i;
    EXPECT_TRUE(second[i - 1] - second[i] == 409 || second[i - 1] - second[i] == 410) << i;
  }
  EXPECT_EQ(first.back() - first.front(), 4096U);
  EXPECT_EQ(second.front() - second.back(), 40960U);
}

TEST_F(SimulatedDriveTest, KeepsItsPeriodOnAverage) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  BringUp(host, "1400");
  host.Send("000#0101");
  ASSERT_TRUE(host.WaitFrames(1));
  host.Forget();
  ASSERT_TRUE(host.WaitFrames(101, milliseconds(10000)));
  const auto records = host.Records();
  const auto taken = records[100].time - records[0].time;
  EXPECT_GT(taken, milliseconds(700));
  EXPECT_LT(taken, milliseconds(1500));
}

TEST_F(SimulatedDriveTest, SendsHeartbeatsFromPowerOnWhenAskedTo) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options;
  options.node_id = 5;
  options.heartbeat_ms = 20;
  SimulatedDrive drive(options);
  ASSERT_TRUE(host.WaitFrames(3));
  EXPECT_EQ(host.Frames()[0], "705#00");
  EXPECT_EQ(host.Frames()[1], "705#7F");
  EXPECT_EQ(host.Frames()[2], "705#7F");
}

TEST_F(SimulatedDriveTest, TwoDrivesShareABus) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options;
  SimulatedDrive one(options);
  options.node_id = 2;
  SimulatedDrive two(options);
  ASSERT_TRUE(host.WaitFrames(2));
  EXPECT_EQ(Exchange(host, "602#2F60600003000000"), Texts{"582#6060600000000000"});
  EXPECT_EQ(one.Received().sdo, 0U);
  host.Send("000#0100");
  EXPECT_TRUE(Eventually([&] {
    return one.State() == NmtState::kOperational && two.State() == NmtState::kOperational;
  }));
}

TEST_F(SimulatedDriveTest, FaultsCanBeInjectedWhileItRuns) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  drive.Inject("abort-object=0x6060/0x08000022");
  EXPECT_EQ(Exchange(host, "601#2F60600003000000"), Texts{"581#8060600022000008"});
  drive.ClearFaults();
  drive.Inject("truncate-replies=4");
  EXPECT_EQ(Exchange(host, "601#2F60600003000000"), Texts{"581#60606000"});
  drive.ClearFaults();
  EXPECT_EQ(Exchange(host, "601#2F60600003000000"), Texts{"581#6060600000000000"});
  EXPECT_THROW(drive.Inject("nonsense"), std::invalid_argument);
}

TEST_F(SimulatedDriveTest, DelayedRepliesArriveLate) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  drive.Inject("delay-replies-ms=80");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Exchange(host, "601#2F60600003000000"), Texts{"581#6060600000000000"});
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(78));
}

TEST_F(SimulatedDriveTest, PowerCanBeCutAndComesBackWithABootUpMessage) {
  bus::FarEnd host("can0");
  SimulatedDrive::Options options;
  options.powered = false;
  options.heartbeat_ms = 10;
  SimulatedDrive drive(options);
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(host.Frames(), Texts{});
  drive.PowerOn();
  ASSERT_TRUE(host.WaitFrames(2));
  EXPECT_EQ(host.Frames()[0], "701#00");
  drive.PowerCut();
  EXPECT_EQ(drive.State(), NmtState::kPowerOff);
  std::this_thread::sleep_for(milliseconds(30));
  host.Forget();
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(host.Frames(), Texts{});
  drive.PowerOn();
  ASSERT_TRUE(host.WaitFrames(1));
  EXPECT_EQ(host.Frames()[0], "701#00");
}

TEST_F(SimulatedDriveTest, ObjectsCanBeReadAndWrittenByATest) {
  SimulatedDrive drive(Plain());
  EXPECT_EQ(drive.ReadObject(0x1000, 0), 0x00020192U);
  EXPECT_EQ(drive.WriteObject(0x6060, 0, 3), AbortCode::kNone);
  EXPECT_EQ(drive.ReadObject(0x6061, 0), 3U);
  EXPECT_EQ(drive.WriteObject(0x6060, 0, 0xFD), AbortCode::kInvalidValue);
  EXPECT_THROW(drive.ReadObject(0x9999, 0), std::out_of_range);
  EXPECT_THROW(drive.Position(3), std::out_of_range);
}

TEST_F(SimulatedDriveTest, ALatchedErrorIsAnnouncedAtOnce) {
  bus::FarEnd host("can0");
  SimulatedDrive drive(Plain());
  ASSERT_TRUE(host.WaitFrames(1));
  drive.LatchError(0x2310);
  ASSERT_TRUE(host.WaitFrames(2));
  EXPECT_EQ(host.Frames()[1], "081#1023030000000000");
  EXPECT_EQ(drive.Statusword(), 0x218);
}

TEST_F(SimulatedDriveTest, EndsWithinMilliseconds) {
  // The quickest of several, because the machine may be busy: one that waits out its sleep is never
  // quick.
  auto quickest = milliseconds(1000);
  for (int i = 0; i < 5; ++i) {
    auto drive = std::make_unique<SimulatedDrive>(Plain());
    std::this_thread::sleep_for(milliseconds(20));
    const auto begin = std::chrono::steady_clock::now();
    drive.reset();
    const auto taken = std::chrono::steady_clock::now() - begin;
    quickest = std::min(quickest, std::chrono::duration_cast<milliseconds>(taken));
  }
  EXPECT_LT(quickest, milliseconds(20));
}

TEST_F(SimulatedDriveTest, LeavesNoThreadAndNoDescriptorBehind) {
  const std::size_t threads = support::Threads();
  const std::size_t descriptors = support::OpenDescriptors();
  for (int i = 0; i < 20; ++i) SimulatedDrive drive(Plain());
  EXPECT_TRUE(support::WaitThreads(threads));
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(SimulatedDriveTest, RidesOutAnInterfaceThatGoesDownAndComesUp) {
  SimulatedDrive::Options options;
  options.heartbeat_ms = 10;
  SimulatedDrive drive(options);
  bus::SetDown("can1");
  std::this_thread::sleep_for(milliseconds(50));
  bus::SetUp("can1");
  bus::FarEnd host("can0");
  EXPECT_TRUE(host.WaitFrames(2));
  host.Send("601#4000100000000000");
  EXPECT_TRUE(Eventually([&] { return drive.Received().sdo == 1; }));
  EXPECT_EQ(drive.Failure(), "");
}

TEST_F(SimulatedDriveTest, SaysSoWhenItsInterfaceDisappears) {
  SimulatedDrive drive(Plain());
  EXPECT_EQ(drive.Failure(), "");
  bus::DeletePair();
  EXPECT_TRUE(Eventually([&] { return !drive.Failure().empty(); }));
}

TEST_F(SimulatedDriveTest, ThrowsWithoutAUsableInterface) {
  const auto error_of = [](const std::string& interface) {
    SimulatedDrive::Options options;
    options.interface = interface;
    try {
      SimulatedDrive drive(options);
    } catch (const std::system_error& error) {
      return error.code().value();
    }
    return 0;
  };
  EXPECT_EQ(error_of("can7"), ENODEV);
  EXPECT_EQ(error_of(""), ENODEV);
  EXPECT_EQ(error_of("a-name-of-far-too-many-characters"), ENODEV);
  EXPECT_EQ(error_of("lo"), ENODEV) << "not a CAN interface";
  bus::SetDown("can1");
  EXPECT_EQ(error_of("can1"), ENETDOWN);
}

}  // namespace
}  // namespace sim
