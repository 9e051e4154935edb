// The way of the wheels against the encoders of simulated drives, on a bus that loses, doubles and
// delays.
#include <cmath>
#include <cstdint>
#include <string>

#include "fault_test.h"
#include "two_wheels.h"

namespace {

using std::chrono::milliseconds;

class OdometryBusTest : public FaultTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(OdometryBusTest, CountsEveryRevolutionWhateverTheBusDoesToReports) {
  const tested::Make& make = GetParam();
  two_wheels::Drives drives(make);
  motor_driver::Vehicle vehicle = two_wheels::VehicleOf(make);
  // A slow machine is not a fault here.
  vehicle.command_timeout = vehicle.feedback_timeout = std::chrono::seconds(5);
  vehicle.heartbeat_timeout = std::chrono::seconds(10);
  motor_driver::Wheels wheels(vehicle);
  ASSERT_TRUE(BroughtUp(wheels));
  const std::int32_t begin[] = {drives.Position(0), drives.Position(1)};
  EXPECT_EQ(wheels.GetWheel(0).revolutions, 0);

  // Without jitter of its own, which changes the order of what a slow machine sends in a burst.
  bus::TrafficControl("netem loss 5% duplicate 5% delay 3ms", "can1");
  double way[2] = {};
  for (const double rpm : {90.0, -60.0, 40.0}) {
    {
      const two_wheels::Host host(wheels, {rpm, -rpm});
      for (const std::size_t wheel : {0U, 1U}) {
        const double sign = wheel == 0 ? 1 : -1;
        ASSERT_TRUE(Eventually([&] {
          return std::abs(wheels.GetWheel(wheel).measured_rpm - sign * rpm) < 1;
        })) << wheel
            << ": " << wheels.GetWheel(wheel).measured_rpm << ", " << wheels.GetReport().reason;
      }
      // A machine that stalls may lose count of a period: a while in which it does not must come.
      int in_a_row = 0;
      for (const auto end = bus::Clock::now() + std::chrono::seconds(20);
           in_a_row < 20 && bus::Clock::now() < end;) {
        const bool right =
            std::abs(wheels.GetWheel(0).measured_rpm - rpm) < 0.01 * std::abs(rpm) + 0.1 &&
            std::abs(wheels.GetWheel(1).measured_rpm + rpm) < 0.01 * std::abs(rpm) + 0.1;
        in_a_row = right ? in_a_row + 1 : 0;
        std::this_thread::sleep_for(milliseconds(10));
      }
      EXPECT_EQ(in_a_row, 20) << "within 1 %, and the rounding of the second motor: "
                              << wheels.GetWheel(0).measured_rpm << " and "
                              << wheels.GetWheel(1).measured_rpm << " at " << rpm << ", "
                              << wheels.GetReport().reason;
    }
    EXPECT_TRUE(wheels.Stop()) << wheels.GetReport().reason;
    for (const std::size_t wheel : {0U, 1U}) {
      const auto counts =
          static_cast<std::int32_t>(static_cast<std::uint32_t>(drives.Position(wheel)) -
                                    static_cast<std::uint32_t>(begin[wheel]));
      const double motor = make.sign * counts / make.reports.counts_per_revolution;
      way[wheel] = wheel == 0 ? motor : -motor / 2.5;
      EXPECT_NEAR(wheels.GetWheel(wheel).revolutions, way[wheel], 1e-9) << wheel << ", " << rpm;
      EXPECT_TRUE(rpm != 90 || (wheel == 0 ? way[0] > 0.2 : way[1] < -0.2)) << way[wheel];
    }
  }
  EndTrafficControl("can1");
  EXPECT_GT(wheels.GetWheel(0).lost_reports + wheels.GetWheel(1).lost_reports, 0U);
}

INSTANTIATE_TEST_SUITE_P(EveryMake, OdometryBusTest, ::testing::ValuesIn(tested::Makes()),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
