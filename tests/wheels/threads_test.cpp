// Hosts of many threads: the thread sanitizer looks on.
#include <atomic>
#include <cmath>
#include <cstddef>
#include <thread>
#include <vector>

#include "fault_test.h"
#include "two_wheels.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::WheelReport;
using motor_driver::Wheels;
using std::chrono::milliseconds;

class ThreadsTest : public FaultTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(ThreadsTest, CommandAndReportsGoOnWhileOthersBringUpStopAndClear) {
  two_wheels::Drives drives(GetParam());
  Wheels wheels(two_wheels::VehicleOf(GetParam()));
  std::atomic<bool> ending{false};
  std::atomic<int> accepted{0};
  std::atomic<int> odd{0};
  std::vector<std::thread> threads;
  for (const double rpm : {30.0, 40.0, 50.0, 60.0}) {
    threads.emplace_back([&, rpm] {
      std::uint64_t cycles = 0;
      while (!ending) {
        const double speeds[] = {rpm, rpm};
        accepted += wheels.Command(speeds, 2) ? 1 : 0;
        const Report report = wheels.GetReport();
        // A fault and its reason belong together, and cycles are counted upwards.
        const bool whole = (report.fault == Fault::kNone) == report.reason.empty();
        odd += whole && report.cycles >= cycles ? 0 : 1;
        cycles = report.cycles;
        for (const std::size_t wheel : {0U, 1U}) {
          const WheelReport seen = wheels.GetWheel(wheel);
          odd += std::abs(seen.target_rpm) <= 60.4 && std::isfinite(seen.measured_rpm) ? 0 : 1;
        }
        std::this_thread::sleep_for(milliseconds(2));
      }
    });
  }
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(BroughtUp(wheels));
    const int before = accepted;
    EXPECT_TRUE(Eventually([&] { return accepted > before + 20; }));
    // Two at a time: the second one waits.
    std::thread other([&] { wheels.Stop(); });
    wheels.Stop();
    other.join();
    drives[0].PowerCut();
    EXPECT_TRUE(Eventually([&] { return wheels.GetReport().state == State::kFault; }));
    drives[0].PowerOn();
    std::thread clearing([&] { wheels.Clear(); });
    wheels.BringUp();
    clearing.join();
    for (int again = 0; again < 3 && wheels.GetReport().state == State::kFault; ++again) {
      wheels.Clear();
    }
    EXPECT_NE(wheels.GetReport().state, State::kFault) << wheels.GetReport().reason;
    // Commands go on, so that it may be running: BringUp() would be refused.
    EXPECT_TRUE(wheels.Clear());
    ending = round == 2;
    while (!ending && !wheels.Stop()) {
      EXPECT_TRUE(wheels.Clear());
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(odd, 0);
  EXPECT_TRUE(wheels.Stop()) << wheels.GetReport().reason;
}

INSTANTIATE_TEST_SUITE_P(OneOrTwoNodes, ThreadsTest,
                         ::testing::Values(tested::Makes()[0], tested::Makes()[4]),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
