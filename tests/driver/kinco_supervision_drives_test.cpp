// The supervision and simulated drives.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <thread>

#include "eventually.h"
#include "far_end.h"
#include "kinco_supervision_fixture.h"
#include "sim/simulated_drive.h"

namespace {

class KincoEmergencyTest : public KincoLoopTest {
 protected:
  static sim::SimulatedDrive::Options Node(std::uint8_t node) {
    sim::SimulatedDrive::Options options;
    options.make = "kinco";
    options.node_id = node;
    return options;
  }

  void BringUp(std::uint8_t node) {
    EXPECT_TRUE(driver_->Init(node, 10));
    EXPECT_TRUE(driver_->ActiveNode(node));
    EXPECT_EQ(driver_->EnableSpeedModeAndPdoMode(node, 10), 0);
  }

  bool Turns(sim::SimulatedDrive& drive, double rpm) {
    return Eventually(
        [&] { return std::abs(drive.SpeedRpm() - rpm) < std::abs(rpm) * 0.01 + 0.1; });
  }
};

TEST_F(KincoEmergencyTest, DrivesRunAgainOneWaitAfterTheRelease) {
  sim::SimulatedDrive first(Node(1));
  sim::SimulatedDrive second(Node(2));
  SetWait(*driver_, 500);
  driver_->StartErrorParsingLoop();
  BringUp(1);
  BringUp(2);
  driver_->set_speed_command_enabled(true);
  EXPECT_TRUE(driver_->SetSpeed(1, 100));
  EXPECT_TRUE(driver_->SetSpeed(2, -100));
  EXPECT_TRUE(Turns(first, 100));
  EXPECT_TRUE(Turns(second, -100));
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_TRUE(Shows(2, DriverStatus::Ready));

  first.PressEmergencyStop();
  second.PressEmergencyStop();
  EXPECT_TRUE(Shows(1, DriverStatus::EmergencyStop));
  EXPECT_TRUE(Shows(2, DriverStatus::EmergencyStop));
  EXPECT_TRUE(Turns(first, 0));
  EXPECT_TRUE(Turns(second, 0));
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::EmergencyStop) << "never while held";

  const auto released = bus::Clock::now();
  first.ReleaseEmergencyStop();
  second.ReleaseEmergencyStop();
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  const auto took = bus::Clock::now() - released;
  EXPECT_TRUE(Shows(2, DriverStatus::Ready));
  EXPECT_GE(took, milliseconds(500));
  EXPECT_LT(took, milliseconds(1200));
  EXPECT_EQ(first.Statusword() & 0xFF, 0x37);
  EXPECT_EQ(second.Statusword() & 0xFF, 0x37);
}

TEST_F(KincoEmergencyTest, ADriveThatTripsIsNamedAndCleared) {
  ASSERT_TRUE(driver_->LoadDriverConfig(PACKAGED_CONFIG));
  sim::SimulatedDrive drive(Node(1));
  driver_->StartErrorParsingLoop();
  BringUp(1);
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  drive.LatchError(0x2310);
  EXPECT_TRUE(Shows(1, DriverStatus::Fault));
  EXPECT_EQ(driver_->GetErrorCode(1).msg, "Continuous over current");
  EXPECT_TRUE(driver_->ClearDriverError(1));
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_EQ(driver_->GetErrorCode(1).msg, "unknown");
}

}  // namespace
