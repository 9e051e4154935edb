// The drives watch the host: without its heartbeat they stop by themselves.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "simulated_vehicle.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;

constexpr auto kWatchdog = milliseconds(300);

Vehicle Watched(const wire::DriveMake& make) {
  Vehicle vehicle = TwoWheels(make);
  vehicle.heartbeat_timeout = milliseconds(1000);
  vehicle.feedback_timeout = milliseconds(600);
  vehicle.command_timeout = milliseconds(300);
  vehicle.drive_watchdog = kWatchdog;
  return vehicle;
}

std::size_t CountOf(const std::vector<std::string>& records, const std::string& frame) {
  std::size_t count = 0;
  for (const std::string& record : records) {
    count += record == frame ? 1 : 0;
  }
  return count;
}

void ExpectNode2Refused(const motor_driver::Report& report, const std::string& object) {
  EXPECT_EQ(report.state, State::kOff);
  EXPECT_EQ(report.fault, Fault::kSetUpRefused);
  EXPECT_EQ(report.node, 2);
  for (const std::string& text : {object, std::string("drive_watchdog 0 drives without")}) {
    EXPECT_NE(report.reason.find(text), std::string::npos) << report.reason;
  }
}

using DriveWatchdogTest = EveryMakeTest;

TEST_P(DriveWatchdogTest, IsSetUpBeforeAnythingIsEnabledAndFedAllTheWhile) {
  SimulatedDrives drives(GetParam());
  bus::FarEnd recorder;
  {
    Wheels wheels(Watched(GetParam()));
    ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
    std::this_thread::sleep_for(milliseconds(1500));
    EXPECT_EQ(wheels.GetReport().state, State::kReady) << wheels.GetReport().reason;
    // 300 ms and node 127; the quarter of it is 75 ms.
    for (const int node : TwoNodes()) {
      bool watches = false;
      bool enabled_before = false;
      for (const std::string& record : recorder.Frames()) {
        watches = watches || record == wire::SdoRequest(node) + "#231610012C017F00";
        enabled_before = enabled_before || (!watches && wire::Enables(node, record));
      }
      EXPECT_TRUE(watches);
      EXPECT_FALSE(enabled_before);
      EXPECT_EQ(drives[node].ReadObject(0x6007, 0), 3U);
    }
    EXPECT_GT(CountOf(recorder.Frames(), "77F#05"), 10U);
  }
  // In the end the drives are told that nobody is to be watched any more, and none trips.
  std::this_thread::sleep_for(2 * kWatchdog);
  for (const int node : TwoNodes()) {
    EXPECT_EQ(drives[node].ReadObject(0x1016, 1), 0U);
    EXPECT_EQ(drives[node].ReadObject(0x603F, 0), 0U);
  }
}

TEST_P(DriveWatchdogTest, StopsTheWheelsOfAComputerThatIsCutOff) {
  SimulatedDrives drives(GetParam());
  Wheels wheels(Watched(GetParam()));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  {
    const Commanding host(wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
    // What the host sends does not arrive any more; the drives do not know why.
    bus::TrafficControl("netem loss 100%", "can0");
    const auto cut = bus::Clock::now();
    ASSERT_TRUE(Eventually([&] { return drives.FastestRpm() < 0.5; }));
    // The time, the drive's quick ramp, and room for a busy machine.
    EXPECT_LT(bus::Clock::now() - cut, kWatchdog + milliseconds(700));
    for (const int node : TwoNodes()) {
      EXPECT_EQ(drives[node].ReadObject(0x603F, 0) & 0xFFFF, 0x8130U);
    }
    ASSERT_TRUE(WaitState(wheels, State::kFault));
    EXPECT_EQ(wheels.GetReport().fault, Fault::kDriveError) << wheels.GetReport().reason;
  }
  bus::Command("tc qdisc del dev can0 root");
  ASSERT_TRUE(Cleared(wheels)) << wheels.GetReport().reason;
  const Commanding host(wheels, 60);
  EXPECT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
}

TEST_P(DriveWatchdogTest, ADriveThatCannotWatchIsRefusedAndNamed) {
  SimulatedDrives drives(GetParam());
  drives[2].Inject("abort-object=0x1016:1");
  bus::FarEnd recorder;
  Wheels wheels(Watched(GetParam()));
  EXPECT_FALSE(wheels.BringUp());
  ExpectNode2Refused(wheels.GetReport(), "0x1016");
  for (const std::string& record : recorder.Frames()) {
    EXPECT_FALSE(wire::Enables(1, record) || wire::Enables(2, record)) << record;
  }
}

// Quick stop is better: without voltage a wheel rolls until friction stops it.
TEST_P(DriveWatchdogTest, ADriveWithoutQuickStopSwitchesItsMotorOff) {
  SimulatedDrives drives(GetParam());
  drives[2].Inject("abort-value=0x6007:0/3");
  Wheels wheels(Watched(GetParam()));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  EXPECT_EQ(drives[1].ReadObject(0x6007, 0), 3U);
  EXPECT_EQ(drives[2].ReadObject(0x6007, 0), 2U);
  const Commanding host(wheels, 60);
  ASSERT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
  bus::TrafficControl("netem loss 100%", "can0");
  EXPECT_TRUE(Eventually([&] { return drives.FastestRpm() < 0.5; }));
  EXPECT_EQ(drives[2].ReadObject(0x603F, 0) & 0xFFFF, 0x8130U);
  EXPECT_NE(drives[2].Statusword() & 0x6F, 0x27) << "still enabled";
  bus::Command("tc qdisc del dev can0 root");
  ASSERT_TRUE(WaitState(wheels, State::kFault));
  EXPECT_EQ(wheels.GetReport().fault, Fault::kDriveError) << wheels.GetReport().reason;
}

TEST_P(DriveWatchdogTest, ADriveThatCannotActIsRefusedAndNamed) {
  SimulatedDrives drives(GetParam());
  drives[2].Inject("abort-value=0x6007:0/3");
  drives[2].Inject("abort-value=0x6007:0/2");
  Wheels wheels(Watched(GetParam()));
  EXPECT_FALSE(wheels.BringUp());
  ExpectNode2Refused(wheels.GetReport(), "0x6007");
}

// A transfer to it lasts 100 ms, and there are several.
TEST_P(DriveWatchdogTest, ANodeThatIsSilentWhileItIsLookedAtTripsNoOther) {
  SimulatedDrives drives(GetParam());
  bus::FarEnd recorder;
  Wheels wheels(Watched(GetParam()));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  {
    const Commanding host(wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
    ASSERT_FALSE(wheels.Stop(milliseconds(0))) << "a fault of no node";
  }
  ASSERT_TRUE(Eventually([&] { return drives.FastestRpm() == 0; }));
  drives.Unplug(2);
  recorder.Forget();
  EXPECT_FALSE(wheels.Clear());
  EXPECT_EQ(wheels.GetReport().node, 2) << wheels.GetReport().reason;
  EXPECT_EQ(drives[1].ReadObject(0x603F, 0), 0U);
  // Until nobody is to be watched any more.
  std::size_t heartbeats = 0;
  for (const std::string& frame : recorder.Frames()) {
    if (frame == wire::SdoRequest(1) + "#2316100100000000") {
      break;
    }
    heartbeats += frame == "77F#05" ? 1 : 0;
  }
  EXPECT_GE(heartbeats, 3U) << "during 300 ms of silence";
}

INSTANTIATE_TEST_SUITE_P(Makes, DriveWatchdogTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);

}  // namespace
