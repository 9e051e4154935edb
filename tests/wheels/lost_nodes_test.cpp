// Nodes that leave operation, a bus that goes away, an emergency stop: all wheels are zeroed, and
// stay so until the host clears the fault.
#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "held_output.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Wheels;
using std::chrono::milliseconds;
using std::chrono::seconds;

using Records = std::vector<bus::RecordedFrame>;

class LostNodesTest : public EveryMakeTest {
 protected:
  // Node 2 is sent this NMT command while both wheels turn, and says the given heartbeat.
  void ExpectAllZeroedAfter(const std::string& command, const std::string& heartbeat) {
    const wire::DriveMake& make = GetParam();
    ReadyVehicle ready(make, TwoWheels(make));
    bus::FarEnd bus_record;
    {
      const TurningHost host(ready, 60);
      bus_record.Send(command);
      ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
      std::this_thread::sleep_for(milliseconds(650));
    }
    EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kNodeRestarted);
    EXPECT_EQ(ready.wheels.GetReport().node, 2);
    EXPECT_EQ(ready.drives[1].SpeedRpm(), 0);
    EXPECT_EQ(ready.drives[2].SpeedRpm(), 0);

    const Records records = bus_record.Records();
    const auto said = std::find_if(records.begin(), records.end(),
                                   [&](const auto& record) { return record.text == heartbeat; });
    ASSERT_NE(said, records.end());
    Records::const_iterator other = records.end();
    std::vector<bus::Clock::time_point> zeros;
    for (auto record = said; record != records.end(); ++record) {
      if (other == records.end() && wire::CommandedRpm(make, 1, record->text) == 0) {
        other = record;
      }
      if (wire::StartsWith(record->text, wire::SdoRequest(2) + "#" + make.targets[0])) {
        zeros.push_back(record->time);
      }
    }
    ASSERT_NE(other, records.end());
    EXPECT_LT(other->time - said->time, milliseconds(100)) << "the other wheel, at once";
    ASSERT_FALSE(zeros.empty());
    EXPECT_LT(zeros.front() - said->time, milliseconds(100)) << "the lost one, at once";
    if (!make.commands_by_sdo) {  // whose every command is one
      EXPECT_GE(zeros.size(), 6U) << "and every 100 ms";
      EXPECT_LE(zeros.size(), 9U) << "but no oftener";
    }
    bus_record.Forget();
    ASSERT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
    EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kNone);
    { const TurningHost host(ready, 60); }
    EXPECT_TRUE(ready.wheels.Stop());
    wire::ExpectZeroConfirmedFirst(make, {2}, bus_record.Records());
  }
};

TEST_P(LostNodesTest, OneOfTwoNodesPutToPreOperationalStopsBoth) {
  ExpectAllZeroedAfter("000#8002", "702#7F");
}

TEST_P(LostNodesTest, OneOfTwoNodesResetStopsBoth) { ExpectAllZeroedAfter("000#8102", "702#00"); }

TEST_P(LostNodesTest, ABusThatWasAwayForSixSecondsHearsZeroFirst) {
  const wire::DriveMake& make = GetParam();
  ReadyVehicle ready(make, TwoWheels(make));
  bus::FarEnd bus_record;
  {
    const TurningHost host(ready, 60);
    bus::SetDown("can0");
    ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
    EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kBusFailed);
    std::this_thread::sleep_for(seconds(6));
    EXPECT_NEAR(ready.drives.FastestRpm(), 60, 0.5) << "nobody can tell them";
    bus_record.Forget();
    bus::SetUp("can0");
    EXPECT_TRUE(Eventually([&] { return ready.drives.FastestRpm() == 0; }));
  }
  for (const bus::RecordedFrame& record : bus_record.Records()) {
    for (const int node : TwoNodes()) {
      EXPECT_EQ(wire::CommandedRpm(make, node, record.text).value_or(0), 0) << record.text;
    }
  }
  EXPECT_EQ(ready.wheels.GetReport().state, State::kFault) << "until the host clears it";
  EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kBusFailed);
  ASSERT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
  const TurningHost host(ready, 60);
}

// As a host leaves it that crashed: enabled, and with a speed.
TEST_P(LostNodesTest, AStoredTargetTurnsNoWheelInTheBringUp) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  bus::FarEnd bus_record;
  for (const int node : TwoNodes()) {
    drives.WriteTarget(node, 60);
  }
  const std::int32_t positions[] = {drives[1].Position(), drives[2].Position()};
  {
    Wheels wheels(TwoWheels(make));
    ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
    EXPECT_EQ(drives[1].Position(), positions[0]);
    EXPECT_EQ(drives[2].Position(), positions[1]);
  }
  wire::ExpectZeroConfirmedFirst(make, TwoNodes(), bus_record.Records());
}

INSTANTIATE_TEST_SUITE_P(Makes, LostNodesTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);

class EmergencyStopTest : public WheelsTest {
 protected:
  void PressAndRelease(SimulatedDrives& drives, const Wheels& wheels) {
    drives[1].PressEmergencyStop();
    drives[2].PressEmergencyStop();
    pressed_in_time_ = WaitState(wheels, State::kFault);
    std::this_thread::sleep_for(milliseconds(500));
    drives[1].ReleaseEmergencyStop();
    drives[2].ReleaseEmergencyStop();
  }

  const wire::DriveMake& make_ = MakeByName("kinco");
  bool pressed_in_time_ = false;
};

TEST_F(EmergencyStopTest, StaysAtZeroAfterTheReleaseUntilItIsCleared) {
  ReadyVehicle ready(make_, TwoWheels(make_));
  for (int round = 0; round < 2; ++round) {
    const TurningHost host(ready, 60);
    bus::FarEnd bus_record;
    PressAndRelease(ready.drives, ready.wheels);
    EXPECT_TRUE(pressed_in_time_);
    EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kEmergencyStop);
    const bus::Clock::time_point released = bus::Clock::now();
    // The drive class leads them out by itself, which enables them.
    ASSERT_TRUE(Eventually([&] {
      return (ready.drives[1].Statusword() & 0x6F) == 0x27 &&
             (ready.drives[2].Statusword() & 0x6F) == 0x27;
    }));
    double fastest = 0;
    for (int i = 0; i < 100; ++i) {
      fastest = std::max(fastest, ready.drives.FastestRpm());
      std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_EQ(fastest, 0);
    EXPECT_EQ(ready.wheels.GetReport().state, State::kFault);
    for (const bus::RecordedFrame& record : bus_record.Records()) {
      if (record.time > released) {
        EXPECT_EQ(wire::CommandedRpm(make_, 1, record.text).value_or(0), 0) << record.text;
      }
    }
    ASSERT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
  }
  EXPECT_TRUE(ready.wheels.Stop());
}

TEST_F(EmergencyStopTest, IsNotClearedWhileItIsPressed) {
  ReadyVehicle ready(make_, TwoWheels(make_));
  ready.drives[2].PressEmergencyStop();
  ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  EXPECT_FALSE(ready.wheels.Clear());
  EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kEmergencyStop);
  EXPECT_EQ(ready.wheels.GetReport().node, 2);
  ready.drives[2].ReleaseEmergencyStop();
  EXPECT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
}

TEST_F(EmergencyStopTest, WithHeldOutputsPressedAndReleasedStopsNoZeros) {
  ReadyVehicle ready(make_, TwoWheels(make_));
  bus::FarEnd bus_record;
  double fastest = 0;
  bool turned = false;
  motor_driver::Report report;
  bus::Clock::time_point begin;
  bus::Clock::time_point end;
  {
    const HeldOutput held_out(1);
    const HeldOutput held_error(2);
    const Commanding host(ready.wheels, 60);
    turned = TurnsAt(ready.drives, 60);
    PressAndRelease(ready.drives, ready.wheels);
    begin = bus::Clock::now();
    report = ready.wheels.GetReport();
    for (int i = 0; i < 300; ++i) {
      fastest = std::max(fastest, ready.drives.FastestRpm());
      std::this_thread::sleep_for(milliseconds(10));
    }
    end = bus::Clock::now();
  }
  EXPECT_TRUE(turned);
  EXPECT_TRUE(pressed_in_time_);
  EXPECT_EQ(report.fault, Fault::kEmergencyStop);
  EXPECT_EQ(fastest, 0);
  int zeros = 0;
  bus::Clock::time_point last = begin;
  bus::Clock::duration longest{};
  for (const bus::RecordedFrame& record : bus_record.Records()) {
    if (record.time >= begin && record.time <= end &&
        wire::CommandedRpm(make_, 2, record.text) == 0) {
      ++zeros;
      longest = std::max(longest, record.time - last);
      last = record.time;
    }
  }
  EXPECT_GT(zeros, 200) << "of 300 periods";
  EXPECT_LT(longest, milliseconds(200));
  ASSERT_TRUE(ready.wheels.Clear()) << ready.wheels.GetReport().reason;
}

}  // namespace
