// Nodes and hosts at their worst: what is promised holds, or is said not to.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;
using std::chrono::seconds;

class AdversaryTest : public EveryMakeTest {};

// A busy machine must not be taken for what is tried here.
motor_driver::Vehicle Patient(const wire::DriveMake& make) {
  motor_driver::Vehicle vehicle = TwoWheels(make);
  vehicle.heartbeat_timeout = milliseconds(1000);
  vehicle.feedback_timeout = milliseconds(600);
  vehicle.command_timeout = milliseconds(300);
  return vehicle;
}

// Makes whose speeds go by PDO.
std::vector<wire::DriveMake> CommandedByPdo() {
  std::vector<wire::DriveMake> makes;
  for (const wire::DriveMake& make : wire::DriveMakes()) {
    if (!make.commands_by_sdo) {
      makes.push_back(make);
    }
  }
  return makes;
}

class AdversaryOfPdosTest : public AdversaryTest {};

// Standstill that was measured before its reports ended proves nothing afterwards.
TEST_P(AdversaryTest, AStopIsNotConfirmedByReportsFromBefore) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  std::this_thread::sleep_for(milliseconds(500));
  ready.drives.Unplug(2);
  ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  EXPECT_FALSE(ready.wheels.Stop(milliseconds(500))) << "wheel 2 cannot be measured";
}

TEST_P(AdversaryTest, AnyStopLimitCounts) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  { const TurningHost host(ready, 30); }
  EXPECT_TRUE(ready.wheels.Stop(milliseconds::max())) << ready.wheels.GetReport().reason;
}

TEST_P(AdversaryTest, TheLongestHeartbeatTimeGetsReady) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  Vehicle vehicle = Patient(make);
  vehicle.heartbeat_timeout = seconds(30);
  Wheels wheels(vehicle);
  EXPECT_TRUE(wheels.BringUp()) << wheels.GetReport().reason;
}

// Neither PDO nor SDO is served in that state.
TEST_P(AdversaryTest, ANodeThatAnotherMasterStoppedIsZeroedAndComesBack) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  bus::FarEnd other_master;
  {
    const TurningHost host(ready, 60);
    other_master.Send("000#0202");
    ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  }
  EXPECT_TRUE(Eventually([&] { return ready.drives[2].SpeedRpm(1) == 0; }));
  EXPECT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
  const TurningHost host(ready, 60);
}

TEST_P(AdversaryTest, ANodeThatAnotherMasterStoppedBeforeIsBroughtUp) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  bus::FarEnd other_master;
  other_master.Send("000#0200");
  Wheels wheels(Patient(make));
  EXPECT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
}

// Its PDOs were taken away, but it serves SDOs.
TEST_P(AdversaryOfPdosTest, AWheelThatHearsNoPdoAnyMoreIsZeroedByObject) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  {
    const TurningHost host(ready, 60);
    ready.drives[2].WriteObject(0x1400, 1, 0x80000202U);
  }
  ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  EXPECT_TRUE(Eventually([&] { return ready.drives[2].SpeedRpm(1) == 0; })) << "turns on for ever";
  EXPECT_TRUE(ready.wheels.Clear() || ready.wheels.Clear()) << ready.wheels.GetReport().reason;
  if (make.name == "hls") {
    return;  // whose set-up leaves the identifiers of its PDOs alone
  }
  const TurningHost host(ready, 60);
}

// Both messages between two looks.
TEST_P(AdversaryTest, ARestartWithinAPeriodIsAFault) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  bus::FarEnd liar;
  for (int i = 0; i < 20; ++i) {
    liar.Send("702#00");
    liar.Send("702#05");
    std::this_thread::sleep_for(milliseconds(3));
  }
  ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kNodeRestarted);
  EXPECT_EQ(ready.wheels.GetReport().node, 2);
  EXPECT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
}

TEST_P(AdversaryTest, AnEmergencyMessageThatIsTakenBackWithinAPeriodIsAFault) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  bus::FarEnd liar;
  for (int i = 0; i < 20; ++i) {
    liar.Send("082#1081010000000000");
    liar.Send("082#0000000000000000");
    std::this_thread::sleep_for(milliseconds(3));
  }
  ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kDriveError);
  EXPECT_EQ(ready.wheels.GetReport().node, 2);
  EXPECT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
}

// Extended identifiers, remote requests and cut frames of the same numbers.
TEST_P(AdversaryTest, FramesThatOnlyLookLikeTheirsChangeNothing) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  bus::FarEnd liar;
  const TurningHost host(ready, 60);
  std::vector<std::string> frames = {"082#1081",
                                     "182#112233",
                                     "182#",
                                     "082#R8",
                                     "182#R8",
                                     "00000082#1081010000000000",
                                     "00000182#0000000000000000"};
  if (!make.has_emergency_stop) {  // whose supervision takes these for status and heartbeats
    for (const char* frame : {"00000702#00", "00000702#7F", "702#", "702#R", "702#R1", "482#11",
                              "482#", "482#R8", "00000482#FFFFFFFFFFFFFFFF"}) {
      frames.emplace_back(frame);
    }
  }
  for (int i = 0; i < 30; ++i) {
    for (const std::string& frame : frames) {
      liar.Send(frame);
    }
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_EQ(ready.wheels.GetReport().state, State::kRunning) << ready.wheels.GetReport().reason;
  EXPECT_NEAR(ready.wheels.GetWheel(1).measured_rpm, 60, 15);
}

// The interface goes every 50 ms, for a while.
TEST_P(AdversaryTest, AFlappingInterfaceIsSurvived) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, Patient(make));
  {
    const TurningHost host(ready, 60);
    for (int i = 0; i < 20; ++i) {
      bus::SetDown("can0");
      std::this_thread::sleep_for(milliseconds(50));
      bus::SetUp("can0");
      std::this_thread::sleep_for(milliseconds(50));
    }
    EXPECT_TRUE(WaitState(ready.wheels, State::kFault));
    EXPECT_TRUE(Eventually([&] { return ready.drives.FastestRpm() == 0; }));
  }
  EXPECT_TRUE(ready.wheels.Clear() || ready.wheels.Clear()) << ready.wheels.GetReport().reason;
  const TurningHost host(ready, 60);
}

TEST_P(AdversaryTest, FlappingWhileItIsCleared) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  {
    Wheels wheels(Patient(make));
    ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
    bus::SetDown("can0");
    ASSERT_TRUE(WaitState(wheels, State::kFault));
    std::atomic<bool> end{false};
    std::thread flapping([&] {
      while (!end) {
        bus::SetUp("can0");
        std::this_thread::sleep_for(milliseconds(300));
        bus::SetDown("can0");
        std::this_thread::sleep_for(milliseconds(50));
      }
      bus::SetUp("can0");
    });
    for (int i = 0; i < 4; ++i) {
      const auto begin = bus::Clock::now();
      wheels.Clear();
      EXPECT_LT(bus::Clock::now() - begin, seconds(11));
    }
    end = true;
    flapping.join();
    EXPECT_TRUE(wheels.Clear() || wheels.Clear() || wheels.Clear()) << wheels.GetReport().reason;
  }
}

// A bus that takes one frame per second.
TEST_P(AdversaryTest, AFullBusHoldsNoDestructorUp) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  bus::Clock::time_point begin;
  {
    Wheels wheels(Patient(make));
    ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
    bus::Command("tc qdisc add dev can0 root tbf rate 8bit burst 16 limit 160");
    ASSERT_TRUE(WaitState(wheels, State::kFault));
    begin = bus::Clock::now();
  }
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(3500));
  EndTrafficControl("can0");
}

INSTANTIATE_TEST_SUITE_P(Makes, AdversaryTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);
INSTANTIATE_TEST_SUITE_P(Makes, AdversaryOfPdosTest, ::testing::ValuesIn(CommandedByPdo()),
                         NameOfMake<wire::DriveMake>);

// While its error is looked at, for 100 ms, its boot-up message is not heard. Its target comes back
// with its power, as a drive restores it that stores it.
TEST_F(WheelsTest, ARestartJustBeforeTheSetUpTurnsNoWheel) {
  const wire::DriveMake& make = MakeByName("hls");
  SimulatedDrives drives(make);
  bus::FarEnd bus_record;
  Wheels wheels(Patient(make));
  std::thread restart;
  wheels.BringUp([&](const std::string& step) {
    if (step == "node 2: set-up") {
      restart = std::thread([&] {
        std::this_thread::sleep_for(milliseconds(50));
        drives[2].PowerCut();
        drives[2].PowerOn();
        drives.WriteTarget(2, 60);
      });
    }
  });
  restart.join();
  EXPECT_EQ(drives[2].Position(), 0);
  wire::ExpectZeroConfirmedFirst(make, TwoNodes(), bus_record.Records());
}

}  // namespace
