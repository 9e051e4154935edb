// motorctl bring-up: success is what was observed, and failures are named.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "jog_bench.h"

namespace {

class BringUpTest : public bus::BusTest {};

TEST_F(BringUpTest, BringsSeveralNodesUpAsOne) {
  sim::SimulatedDrive::Options second = Options("tt");
  second.node_id = 9;
  sim::SimulatedDrive one(Options("tt"));
  sim::SimulatedDrive two(second);
  const Result result = Motorctl({"bring-up", "1", "9", "--make", "tt", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(result.Objects().size(), 2U) << result.out;
  for (sim::SimulatedDrive* drive : {&one, &two}) {
    EXPECT_EQ(drive->Statusword() & 0x6FU, 0x27U);
    EXPECT_EQ(drive->State(), sim::NmtState::kOperational);
    EXPECT_EQ(drive->SpeedRpm(), 0.0);
  }
}

TEST_F(BringUpTest, ANodeThatDoesNotAnswerFailsThemAll) {
  sim::SimulatedDrive drive(Options("zl"));
  const Result result = Motorctl({"bring-up", "1", "2", "--make", "zl"});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.out, "node 1: not brought up: node 2 ")) << result.out;
  EXPECT_FALSE(Contains(result.out, "up, operational")) << result.out;
  EXPECT_NE(drive.Statusword() & 0x6FU, 0x27U);
}

class BringUpTripTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {};

INSTANTIATE_TEST_SUITE_P(Makes, BringUpTripTest, ::testing::ValuesIn(tested::Makes()), MakeName);

// It trips whenever it is enabled, whatever clears its fault.
TEST_P(BringUpTripTest, ADriveThatTripsIsNotUp) {
  sim::SimulatedDrive drive(Options(GetParam().name));
  std::atomic<bool> ended{false};
  std::thread trips([&] {
    while (!ended) {
      if ((drive.Statusword() & 0x6FU) == 0x27U) drive.LatchError(0x2310);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  const Result result = Motorctl({"bring-up", "1", "--make", GetParam().name});
  ended = true;
  trips.join();
  EXPECT_EQ(result.status, 1) << result.out;
  EXPECT_FALSE(Contains(result.out, "up, operational")) << result.out;
  EXPECT_TRUE(Contains(result.out, "node 1: not brought up: ")) << result.out;
}

TEST_F(BringUpTest, AVehicleWhoseStopIsPressedIsNotUp) {
  sim::SimulatedDrive drive(Options("kinco"));
  drive.PressEmergencyStop();
  const Result result = Motorctl({"bring-up", "1", "--make", "kinco"});
  EXPECT_EQ(result.status, 1) << result.out;
  EXPECT_FALSE(Contains(result.out, "up, operational")) << result.out;
  EXPECT_TRUE(Contains(result.out, "node 1: not brought up: node 1 ")) << result.out;
}

// What the library logs is the caller's affair; what has failed is told all the same.
TEST_F(BringUpTest, NamesFailuresWhateverTheLevelOfTheLog) {
  for (const char* level : {"SPDLOG_LEVEL=critical", "SPDLOG_LEVEL=off", "SPDLOG_LEVEL=nonsense"}) {
    sim::SimulatedDrive drive(Options("zl"));
    drive.Inject("ignore-object=0x1A03");
    const Result result = Motorctl({"bring-up", "1", "--make", "zl"}, "", {level});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(Contains(result.out, "node 1: failed: 0x1A03 sub 0")) << level << result.out;
    EXPECT_TRUE(Contains(result.out, "no answer")) << level << result.out;
  }
}

}  // namespace
