// A stop counts only when it was measured; what cannot be confirmed is said in capitals.
#include <chrono>
#include <memory>
#include <string>

#include "held_output.h"
#include "output_capture.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Wheels;
using std::chrono::milliseconds;
using std::chrono::seconds;

class StopTest : public EveryMakeTest {};

TEST_P(StopTest, EndsWhenEveryWheelWasMeasuredToStand) {
  SimulatedDrives drives(GetParam());
  motor_driver::Vehicle vehicle = TwoWheels(GetParam());
  vehicle.command_timeout = milliseconds(1000);  // a command that is stale stops, too
  Wheels wheels(vehicle);
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  {
    const Commanding host(wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60));
  }
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(wheels.Stop());
  // 60 rpm at 300 rpm/s, and standstill over 200 ms after the last of it.
  EXPECT_GT(bus::Clock::now() - begin, milliseconds(390));
  EXPECT_LT(bus::Clock::now() - begin, seconds(2));
  EXPECT_EQ(drives.FastestRpm(), 0);
  EXPECT_EQ(wheels.GetReport().state, State::kReady);
  for (const int node : TwoNodes()) {
    EXPECT_EQ(drives[node].Statusword() & 0x6F, 0x27) << "enabled at zero";
  }
}

TEST_P(StopTest, IsNotConfirmedWhileAWheelGoesOnTurning) {
  SimulatedDrives drives(GetParam());
  auto wheels = std::make_unique<Wheels>(TwoWheels(GetParam()));
  ASSERT_TRUE(BroughtUp(*wheels)) << wheels->GetReport().reason;
  {
    const Commanding host(*wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60));
    drives.Deafen(2);
  }
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(wheels->Stop(milliseconds(600)));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(600));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(900));
  EXPECT_EQ(wheels->GetReport().state, State::kFault);
  EXPECT_EQ(wheels->GetReport().fault, Fault::kStopNotConfirmed);
  EXPECT_NEAR(drives.FastestRpm(), 60, 0.5);
  EXPECT_EQ(drives[1].SpeedRpm(1), 0) << "the other one stands";

  EXPECT_FALSE(wheels->Stop(milliseconds(300))) << "measures in a fault, too";
  EXPECT_EQ(wheels->GetReport().fault, Fault::kStopNotConfirmed);

  support::OutputCapture capture;
  const auto end_begins = bus::Clock::now();
  wheels.reset();
  EXPECT_LE(bus::Clock::now() - end_begins, milliseconds(3500));
  capture.Stop();
  EXPECT_EQ(capture.Err(),
            "THE STOP IS NOT CONFIRMED: A WHEEL MAY STILL TURN. SECURE THE VEHICLE. (THE STOP IS "
            "NOT CONFIRMED: zero is sent, but a wheel may still turn; secure the vehicle)\n");
}

TEST_P(StopTest, OfTheDestructorIsConfirmedOrSaidInCapitals) {
  SimulatedDrives drives(GetParam());
  auto wheels = std::make_unique<Wheels>(TwoWheels(GetParam()));
  ASSERT_TRUE(BroughtUp(*wheels)) << wheels->GetReport().reason;
  bus::FarEnd bus_record;
  {
    const Commanding host(*wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60));
  }
  support::OutputCapture capture;
  wheels.reset();
  capture.Stop();
  EXPECT_EQ(capture.Err(), "");
  EXPECT_EQ(drives.FastestRpm(), 0);
  wire::ExpectLastSpeedsZero(GetParam(), TwoNodes(), bus_record.Records());
}

INSTANTIATE_TEST_SUITE_P(Makes, StopTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);

class StopOfAnyMakeTest : public WheelsTest {
 protected:
  const wire::DriveMake& make_ = MakeByName("hls");
};

TEST_F(StopOfAnyMakeTest, IsTrueAndSendsNothingBeforeTheBringUp) {
  SimulatedDrives drives(make_);
  bus::FarEnd bus_record;
  bus_record.Forget();
  {
    Wheels wheels(TwoWheels(make_));
    EXPECT_TRUE(wheels.Stop());
    EXPECT_EQ(wheels.GetReport().state, State::kOff);
  }
  for (const int node : TwoNodes()) {
    EXPECT_EQ(drives[node].Received().sdo, 0U);
    EXPECT_EQ(drives[node].Received().pdo, 0U);
    EXPECT_EQ(drives[node].Received().nmt, 0U);
  }
}

TEST_F(StopOfAnyMakeTest, InAFaultMeasuresAndLeavesTheFirstFault) {
  ReadyVehicle ready(make_, TwoWheels(make_));
  {
    const TurningHost host(ready, 60);
    ready.drives[2].LatchError(0x2310);
    ASSERT_TRUE(WaitState(ready.wheels, State::kFault));
  }
  EXPECT_TRUE(ready.wheels.Stop());
  EXPECT_EQ(ready.wheels.GetReport().state, State::kFault);
  EXPECT_EQ(ready.wheels.GetReport().fault, Fault::kDriveError);
  EXPECT_EQ(ready.wheels.GetReport().node, 2);
}

TEST_F(StopOfAnyMakeTest, WithBothOutputsHeldAndAWheelThatGoesOnTurningEndsInTime) {
  SimulatedDrives drives(make_);
  auto wheels = std::make_unique<Wheels>(TwoWheels(make_));
  ASSERT_TRUE(BroughtUp(*wheels)) << wheels->GetReport().reason;
  {
    const Commanding host(*wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60));
    drives.Deafen(1);
  }
  bus::Clock::duration taken{};
  {
    const HeldOutput held_out(1);
    const HeldOutput held_error(2);
    const auto begin = bus::Clock::now();
    wheels.reset();
    taken = bus::Clock::now() - begin;
  }
  EXPECT_GT(taken, seconds(3));
  EXPECT_LE(taken, milliseconds(3500));
}

}  // namespace
