// What a host may call when, and what goes over the bus for it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "far_end.h"
#include "fault_test.h"
#include "output_capture.h"
#include "two_wheels.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::VehicleError;
using motor_driver::WheelReport;
using motor_driver::Wheels;
using std::chrono::milliseconds;
using two_wheels::Drives;
using two_wheels::VehicleOf;

const tested::Make& Zl() { return tested::Makes()[0]; }

Vehicle Fake() {
  Vehicle vehicle;
  vehicle.make = "fake";
  vehicle.wheels = {{"left", 1, 1, false, 1.0}, {"right", 2, 1, true, 2.5}};
  return vehicle;
}

class ApiTest : public FaultTest {};

// --- Objects and calls ---------------------------------------------------------------------------

TEST_F(ApiTest, AnObjectThatIsRefusedSendsNothing) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  Vehicle wrong = VehicleOf(Zl());
  wrong.max_rpm = -1;
  EXPECT_THROW(Wheels refused(wrong), VehicleError);
  {
    const Wheels idle(VehicleOf(Zl()));
    EXPECT_THROW(Wheels refused(VehicleOf(Zl())), VehicleError);
    EXPECT_EQ(idle.GetReport().state, State::kOff);
  }
  const Wheels again(VehicleOf(Zl()));
}

TEST_F(ApiTest, ASecondObjectOnTheBusIsRefusedAndTheFirstGoesOn) {
  Drives drives(Zl());
  Wheels wheels(VehicleOf(Zl()));
  ASSERT_TRUE(BroughtUp(wheels));
  const two_wheels::Host host(wheels, {50, 50});
  ASSERT_TRUE(Eventually([&] { return std::abs(drives.SpeedRpm(0) - 50) < 0.1; }));
  for (int attempt = 0; attempt < 20; ++attempt) {
    EXPECT_THROW(Wheels refused(VehicleOf(Zl())), VehicleError);
  }
  EXPECT_EQ(wheels.GetReport().state, State::kRunning) << wheels.GetReport().reason;
  EXPECT_NEAR(drives.SpeedRpm(0), 50, 0.1);
}

TEST_F(ApiTest, CallsBeforeTheBringUpDoNothing) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  Wheels wheels(VehicleOf(Zl()));
  const double rpm[] = {10, 10};
  EXPECT_FALSE(wheels.Command(rpm, 2));
  EXPECT_FALSE(wheels.Command(nullptr, 2));
  EXPECT_TRUE(wheels.Stop()) << "nothing was enabled: there is nothing to stop";
  EXPECT_FALSE(wheels.Clear()) << "there is no fault";
  const Report report = wheels.GetReport();
  EXPECT_EQ(report.state, State::kOff);
  EXPECT_EQ(report.fault, Fault::kNone);
  EXPECT_EQ(report.node, 0);
  EXPECT_EQ(report.reason, "");
  EXPECT_EQ(report.cycles, 0U);
  const WheelReport wheel = wheels.GetWheel(1);
  EXPECT_EQ(wheel.target_rpm, 0);
  EXPECT_EQ(wheel.measured_rpm, 0);
  EXPECT_EQ(wheel.revolutions, 0);
  EXPECT_EQ(wheel.lost_reports, 0U);
  EXPECT_THROW(wheels.GetWheel(2), std::out_of_range);
  EXPECT_THROW(wheels.GetWheel(static_cast<std::size_t>(-1)), std::out_of_range);
}

TEST_F(ApiTest, ACommandThatIsNoneIsRefused) {
  Drives drives(Zl());
  Wheels wheels(VehicleOf(Zl()));
  ASSERT_TRUE(BroughtUp(wheels));
  EXPECT_TRUE(wheels.BringUp()) << "ready is ready";
  EXPECT_TRUE(wheels.Clear());
  const double fast[] = {50, 50, 50};
  EXPECT_FALSE(wheels.Command(nullptr, 2));
  EXPECT_FALSE(wheels.Command(nullptr, 0));
  EXPECT_FALSE(wheels.Command(fast, 0));
  EXPECT_FALSE(wheels.Command(fast, 1));
  EXPECT_FALSE(wheels.Command(fast, 3));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(wheels.GetReport().state, State::kReady);
  EXPECT_EQ(drives.SpeedRpm(0), 0);

  for (const double odd :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    const double rpm[] = {50, odd};
    for (int cycle = 0; cycle < 20; ++cycle) {
      EXPECT_FALSE(wheels.Command(rpm, 2));
      EXPECT_FALSE(wheels.GetReport().command_stale) << "it is a command, of zero";
      std::this_thread::sleep_for(milliseconds(10));
      EXPECT_EQ(wheels.GetWheel(0).target_rpm, 0) << "zero for all";
    }
  }
  EXPECT_EQ(drives.SpeedRpm(0), 0);
  EXPECT_THROW(wheels.GetWheel(2), std::out_of_range);

  const two_wheels::Host host(wheels, {10, 10});
  ASSERT_TRUE(Eventually([&] { return wheels.GetReport().state == State::kRunning; }));
  EXPECT_FALSE(wheels.BringUp()) << "not while it runs";
  EXPECT_TRUE(wheels.Clear()) << "there is nothing to clear";
  EXPECT_EQ(wheels.GetReport().state, State::kRunning);
}

// --- Speeds on the wire --------------------------------------------------------------------------

struct Sent {
  bus::Clock::time_point time;
  int rpm;
};

std::int32_t Int32(const std::string& hex) {
  std::uint32_t value = 0;
  for (std::size_t byte = 0; byte < 4; ++byte) {
    value |= static_cast<std::uint32_t>(std::stoul(hex.substr(2 * byte, 2), nullptr, 16))
             << (8 * byte);
  }
  return static_cast<std::int32_t>(value);
}

// What RPDO1 of node 1 commanded one of its two motors.
std::vector<Sent> SpeedsOfZl(bus::FarEnd& far_end, std::size_t motor) {
  std::vector<Sent> speeds;
  for (const bus::RecordedFrame& record : far_end.Records()) {
    if (record.text.rfind("201#", 0) == 0 && record.text.size() == 4 + 16) {
      speeds.push_back({record.time, Int32(record.text.substr(4 + 8 * motor, 8))});
    }
  }
  return speeds;
}

bool Reaches(bus::FarEnd& far_end, std::size_t motor, int rpm) {
  return Eventually([&] {
    const auto speeds = SpeedsOfZl(far_end, motor);
    return !speeds.empty() && speeds.back().rpm == rpm;
  });
}

// 240 and 480 rpm per second are 2.4 and 4.8 rpm of the wheel in a period, rounded to whole rpm of
// the motor; the second motor is mirrored and turns 2.5 times as fast.
TEST_F(ApiTest, SpeedsApproachACommandAsFastAsTheVehicleMay) {
  const Drives drives(Zl());
  Vehicle vehicle = VehicleOf(Zl());
  vehicle.max_acceleration = 240;
  vehicle.max_deceleration = 480;
  vehicle.max_rpm = 60;
  vehicle.command_timeout = std::chrono::seconds(10);  // the machine may stall
  Wheels wheels(vehicle);
  ASSERT_TRUE(BroughtUp(wheels));
  bus::FarEnd far_end;
  {
    const two_wheels::Host host(wheels, {1000, 20.3});  // the first is clamped
    ASSERT_TRUE(Reaches(far_end, 0, 60));
    ASSERT_TRUE(Reaches(far_end, 1, -51));  // 50.75
    EXPECT_EQ(wheels.GetWheel(0).target_rpm, 60);
    EXPECT_EQ(wheels.GetWheel(1).target_rpm, 20.4) << "what was sent";
  }
  {
    const two_wheels::Host host(wheels, {-30, -20.3});
    ASSERT_TRUE(Reaches(far_end, 0, -30));
    ASSERT_TRUE(Reaches(far_end, 1, 51));
  }
  ASSERT_TRUE(wheels.Stop());

  for (const std::size_t motor : {0U, 1U}) {
    const double ratio = motor == 0 ? 1.0 : -2.5;
    std::vector<int> expected;
    double speed = 0;
    const auto move = [&](double goal, double step) {
      while (speed != goal) {
        speed = speed < goal ? std::min(goal, speed + step) : std::max(goal, speed - step);
        expected.push_back(static_cast<int>(std::round(speed * ratio)));
      }
    };
    const double first = motor == 0 ? 60 : 20.3;
    const double second = motor == 0 ? -30 : -20.3;
    move(first, 2.4);
    move(0, 4.8);  // a reversal goes by way of zero
    move(second, 2.4);
    move(0, 4.8);
    // Between two changes the same is sent again and again.
    expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
    std::vector<int> sent;
    for (const Sent& one : SpeedsOfZl(far_end, motor)) {
      if (sent.empty() ? one.rpm != 0 : one.rpm != sent.back()) {
        sent.push_back(one.rpm);
      }
    }
    EXPECT_EQ(sent, expected) << motor;
  }
}

// --- What a log says -----------------------------------------------------------------------------

std::vector<std::string> LinesWith(const std::string& words, const std::string& text) {
  std::vector<std::string> lines;
  for (const std::string& line : support::Lines(support::WithoutNumbers(text))) {
    if (line.find(words) != std::string::npos) {
      lines.push_back(line);
    }
  }
  return lines;
}

TEST_F(ApiTest, TheLogHasALineForEveryStateAndEveryFault) {
  support::OutputCapture capture;
  {
    sim::SimulatedDrive::Options options;
    auto drive = std::make_unique<sim::SimulatedDrive>(options);
    Wheels wheels(VehicleOf(Zl()));
    ASSERT_TRUE(wheels.BringUp());
    {
      const two_wheels::Host host(wheels, {20, 20});
      ASSERT_TRUE(Eventually([&] { return wheels.GetReport().state == State::kRunning; }));
    }
    ASSERT_TRUE(wheels.Stop());
    drive->LatchError(0x2310);
    ASSERT_TRUE(Eventually([&] { return wheels.GetReport().state == State::kFault; }));
    std::this_thread::sleep_for(milliseconds(200));  // as many cycles as it lasts, one line
    drive->ClearFaults();
    ASSERT_TRUE(wheels.Clear()) << wheels.GetReport().reason;
  }
  capture.Stop();
  const std::vector<std::string> expected = {
      "[INFO] wheels: bring-up, was off",
      "[INFO] wheels: ready, was bring-up",
      "[INFO] wheels: running, was ready",
      "[INFO] wheels: stopping, was running",
      "[INFO] wheels: ready, was stopping",
      "[ERROR] wheels: node 1 reports error 0x2310: find its cause, then Clear()",
      "[INFO] wheels: fault, was ready",
      "[INFO] wheels: bring-up, was fault",
      "[INFO] wheels: ready, was bring-up",
      "[INFO] wheels: stopping, was ready",
      "[INFO] wheels: ready, was stopping",
  };
  EXPECT_EQ(LinesWith("] wheels: ", capture.Out()), expected);
}

// --- No bus --------------------------------------------------------------------------------------

TEST_F(ApiTest, AFakeVehicleReportsWhatItWasCommandedWithoutABus) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  Vehicle vehicle = Fake();
  vehicle.interface = "absent";
  Wheels wheels(vehicle);
  std::vector<std::string> steps;
  ASSERT_TRUE(wheels.BringUp([&](const std::string& step) { steps.push_back(step); }));
  EXPECT_EQ(steps, (std::vector<std::string>{"bus absent", "node 1: set-up", "node 2: set-up"}));
  {
    const two_wheels::Host host(wheels, {30, -30.3});
    ASSERT_TRUE(Eventually([&] { return wheels.GetWheel(0).target_rpm == 30; }));
    const double before = wheels.GetWheel(0).revolutions;
    EXPECT_EQ(wheels.GetReport().state, State::kRunning);
    EXPECT_EQ(wheels.GetWheel(0).measured_rpm, 30);
    ASSERT_TRUE(Eventually([&] { return wheels.GetWheel(1).measured_rpm == -30.4; }));
    ASSERT_TRUE(Eventually([&] { return wheels.GetWheel(0).revolutions > before + 0.4; }));
    EXPECT_LT(wheels.GetWheel(1).revolutions, -0.2);
    EXPECT_EQ(wheels.GetWheel(0).lost_reports, 0U);
  }
  ASSERT_TRUE(wheels.Stop());
  EXPECT_EQ(wheels.GetWheel(0).measured_rpm, 0);
  EXPECT_EQ(wheels.GetReport().fault, Fault::kNone);
}

}  // namespace
