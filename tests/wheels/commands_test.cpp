// Commands that stop coming, make no sense or ask for too much: a wheel turns only while a living
// host asks for it.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;

class CommandsTest : public EveryMakeTest {};

// Speeds on the wire to the first motor of a node, with their times.
struct Speed {
  bus::Clock::time_point time;
  double rpm;
};

std::vector<Speed> Speeds(const wire::DriveMake& make, int node, bus::FarEnd& bus_record) {
  std::vector<Speed> speeds;
  for (const bus::RecordedFrame& record : bus_record.Records()) {
    if (const auto rpm = wire::CommandedRpm(make, node, record.text)) {
      speeds.push_back({record.time, *rpm});
    }
  }
  return speeds;
}

TEST_P(CommandsTest, AStaleCommandRampsToZeroWithinItsTimeoutAndAPeriod) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  const Vehicle vehicle = TwoWheels(make);
  Wheels wheels(vehicle);
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  // A machine that stalls is late once, a layer that is late is so always.
  auto fastest = bus::Clock::duration::max();
  for (int attempt = 0; attempt < 5; ++attempt) {
    bus::FarEnd bus_record;
    Commanding host(wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
    std::this_thread::sleep_for(milliseconds(100));
    const auto last_command = host.End();
    ASSERT_TRUE(Eventually([&] { return wheels.GetReport().command_stale; }));
    const Report falling = wheels.GetReport();
    EXPECT_EQ(falling.state, State::kRunning);
    EXPECT_EQ(falling.fault, Fault::kNone);
    ASSERT_TRUE(WaitState(wheels, State::kReady)) << wheels.GetReport().reason;
    EXPECT_TRUE(wheels.GetReport().command_stale) << "until the next accepted command";
    EXPECT_EQ(drives.FastestRpm(), 0);

    const std::vector<Speed> speeds = Speeds(make, 2, bus_record);
    // A host that was held up itself had a stale command before its last one.
    const bool steady = std::all_of(speeds.begin(), speeds.end(), [&](const Speed& speed) {
      const auto after = speed.time - last_command;
      return speed.rpm == 60 || after < milliseconds(-50) || after > milliseconds(50);
    });
    if (!steady) {
      continue;
    }
    const auto first_falling = std::find_if(speeds.begin(), speeds.end(), [&](const Speed& speed) {
      return speed.time > last_command && speed.rpm < 60;
    });
    ASSERT_NE(first_falling, speeds.end());
    fastest = std::min(fastest, first_falling->time - last_command);
    EXPECT_GT(first_falling->time - last_command, vehicle.command_timeout);
    // 300 rpm/s are 3 rpm a period.
    double before = 60;
    for (auto speed = first_falling; speed != speeds.end() && before != 0; ++speed) {
      EXPECT_NEAR(before - speed->rpm, 3, 1.01) << "a ramp, not a step";
      before = speed->rpm;
    }
    EXPECT_EQ(before, 0);
  }
  const auto fastest_us = std::chrono::duration_cast<std::chrono::microseconds>(fastest).count();
  std::printf("%s: first falling target %lld us after the last command\n", make.name.c_str(),
              static_cast<long long>(fastest_us));
  EXPECT_LT(fastest, vehicle.command_timeout + vehicle.period + milliseconds(1));

  const double speeds[] = {0, 0};
  EXPECT_TRUE(wheels.Command(speeds, 2));
  EXPECT_FALSE(wheels.GetReport().command_stale);
  EXPECT_TRUE(wheels.Stop());
}

TEST_P(CommandsTest, ACommandIsClampedAndReachedByRamps) {
  const wire::DriveMake& make = GetParam();
  SimulatedDrives drives(make);
  Wheels wheels(TwoWheels(make));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  bus::FarEnd bus_record;
  {
    const Commanding host(wheels, -1e9);
    ASSERT_TRUE(TurnsAt(drives, 100)) << wheels.GetReport().reason;
  }
  EXPECT_TRUE(wheels.Stop());
  double before = 0;
  double least = 0;
  for (const Speed& speed : Speeds(make, 1, bus_record)) {
    // 600 rpm/s up, 300 down.
    EXPECT_LE(before - speed.rpm, 6 + 1.01);
    EXPECT_LE(speed.rpm - before, 3 + 1.01);
    before = speed.rpm;
    least = std::min(least, speed.rpm);
  }
  EXPECT_EQ(least, -100);
  EXPECT_EQ(before, 0);
}

INSTANTIATE_TEST_SUITE_P(Makes, CommandsTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);

class OddCommandsTest : public WheelsTest {
 protected:
  const wire::DriveMake& make_ = MakeByName("zl");
};

TEST_F(OddCommandsTest, WhatIsNoNumberIsZeroForAllWheelsAndCountsAsFresh) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  for (const double odd :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    SCOPED_TRACE(odd);
    {
      const Commanding host(wheels, 60);
      ASSERT_TRUE(TurnsAt(drives, 60));
    }
    const double speeds[] = {60, odd};
    bool stale = false;
    const auto end = bus::Clock::now() + milliseconds(400);
    while (bus::Clock::now() < end) {
      EXPECT_FALSE(wheels.Command(speeds, 2));
      stale = stale || wheels.GetReport().command_stale;
      std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_FALSE(stale);
    EXPECT_EQ(drives.FastestRpm(), 0) << "the other wheel, too";
    EXPECT_EQ(wheels.GetReport().fault, Fault::kNone);
  }
  EXPECT_TRUE(wheels.Stop());
}

TEST_F(OddCommandsTest, AWrongCountIsRefusedAndKeepsNoCommandFresh) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  {
    const Commanding host(wheels, 60);
    ASSERT_TRUE(TurnsAt(drives, 60));
  }
  const double speeds[] = {60, 60, 60};
  const auto end = bus::Clock::now() + milliseconds(700);
  while (bus::Clock::now() < end) {
    EXPECT_FALSE(wheels.Command(speeds, 1));
    EXPECT_FALSE(wheels.Command(speeds, 3));
    EXPECT_FALSE(wheels.Command(speeds, 0));
    EXPECT_FALSE(wheels.Command(nullptr, 2));
    std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_EQ(drives.FastestRpm(), 0);
  EXPECT_TRUE(wheels.GetReport().command_stale);
  EXPECT_EQ(wheels.GetReport().state, State::kReady);
}

TEST_F(OddCommandsTest, ARefusedStateTakesNoCommandAndKeepsNone) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  const double speeds[] = {60, 60};
  EXPECT_FALSE(wheels.Command(speeds, 2)) << "off";
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(wheels.GetReport().state, State::kReady);
  EXPECT_EQ(drives.FastestRpm(), 0);
  drives[1].LatchError(0x2310);
  ASSERT_TRUE(WaitState(wheels, State::kFault));
  EXPECT_FALSE(wheels.Command(speeds, 2)) << "fault";
  ASSERT_TRUE(wheels.Clear()) << wheels.GetReport().reason;
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(drives.FastestRpm(), 0);
  EXPECT_EQ(wheels.GetReport().state, State::kReady);
}

}  // namespace
