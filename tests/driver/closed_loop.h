// A drive of one make on both sides: the library's class on can0, the simulated drive on can1, and
// a host's control loop between them.
#pragma once

#include <driver_common.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>

#include "makes.h"
#include "observed_driver.h"
#include "sim/simulated_drive.h"

class ClosedLoop {
 public:
  static constexpr std::uint8_t kNode = 1;
  static constexpr std::uint16_t kPeriodMs = 10;

  // Without a simulated drive: PlugIn() gives one.
  explicit ClosedLoop(const tested::Make& make) : make_(make), driver_(make.create("can0")) {}

  // A drive with its power just switched on takes the place of the one before.
  void PlugIn(bool inactive = false) {
    sim::SimulatedDrive::Options options;
    options.make = make_.name;
    options.start_positions = {1'000'000, -1'000'000};
    options.inactive = inactive;
    drive_.reset();
    drive_ = std::make_unique<sim::SimulatedDrive>(options);
  }
  void Unplug() { drive_.reset(); }

  DriverCommon& driver() { return *driver_; }
  sim::SimulatedDrive& drive() { return *drive_; }

  // The whole set-up; how many of its confirmed operations failed.
  int BringUp() {
    int failures = driver_->ActiveNode(kNode) ? 0 : 1;
    for (const tested::TargetVelocity& zero : make_.target_velocities) {
      failures +=
          driver_->SdoWriteWithFeedback(0x600 + kNode, zero.command, zero.index, zero.sub_index, 0)
              ? 0
              : 1;
    }
    failures += driver_->EnableSpeedModeAndPdoMode(kNode, kPeriodMs);
    driver_->StartNode(kNode);
    driver_->set_speed_command_enabled(true);
    return failures;
  }

  // Several times where an answer is lost or too late, as a host does; whether nothing failed.
  bool ComesUp() {
    bool up = BringUp() == 0;
    for (int again = 0; again < 2 && !up; ++again) {
      up = BringUp() == 0;
    }
    return up;
  }

  bool Command(int rpm) {
    return make_.motors == 2 ? driver_->SetSpeed(kNode, rpm, -rpm) : driver_->SetSpeed(kNode, rpm);
  }

  // One reading of each motor; false when the frame was not a position report of the node.
  bool Read(double (&rpm)[2]) {
    std::uint8_t node = 0;
    int counts[2] = {};
    if (make_.motors == 2) {
      return driver_->GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]);
    }
    return driver_->GetSpeed(node, rpm[0], counts[0]) && node == kNode;
  }

  // Takes every queued frame; how many they were.
  int ReadAll() {
    int frames = 0;
    for (double rpm[2] = {}; driver_->GetReadQueueSize() > 0; ++frames) {
      Read(rpm);
    }
    return frames;
  }

  // The motor turns at the commanded speed and the readings say so, the other way round for the
  // second motor.
  void ExpectTurnsAt(int target) {
    SCOPED_TRACE(target);
    const double motor_rpm = make_.sign * target;
    ASSERT_TRUE(Command(target));
    ASSERT_TRUE(Eventually([&] { return std::abs(drive_->SpeedRpm(1) - motor_rpm) < 0.1; }))
        << drive_->SpeedRpm(1);
    double mean[2] = {};
    Measure(target, mean);
    EXPECT_NEAR(mean[0], target, Tolerance(target));
    if (make_.motors == 2) {
      EXPECT_NEAR(mean[1], -target, Tolerance(target));
    }
  }

  // Mean of the next 50 readings, with the speed commanded in every period as a host does.
  void Measure(int target, double (&mean)[2]) {
    driver_->ClearReadQueue();
    mean[0] = mean[1] = 0;
    // The first reading of all, and one that spans the cleared frames, tell nothing.
    constexpr int kDropped = 2;
    constexpr int kReadings = 50;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (int readings = 0; readings < kDropped + kReadings;) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "only " << readings << " readings";
      EXPECT_TRUE(Command(target));
      driver_->CanDelayMs(kPeriodMs);
      while (driver_->GetReadQueueSize() > 0 && readings < kDropped + kReadings) {
        double rpm[2] = {};
        if (Read(rpm) && ++readings > kDropped) {
          mean[0] += rpm[0] / kReadings;
          mean[1] += rpm[1] / kReadings;
        }
      }
    }
  }

  static double Tolerance(int target) { return target == 0 ? 0.01 : std::abs(target) * 0.01; }

 private:
  const tested::Make make_;
  std::unique_ptr<sim::SimulatedDrive> drive_;
  std::unique_ptr<DriverCommon> driver_;
};
