// A bus that takes no frame, while a control loop runs: what a host sees, and how it comes back.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ostream>
#include <string>

#include "fault_test.h"

namespace {

struct FullQueue {
  std::string name;
  std::string discipline;
};

void PrintTo(const FullQueue& queue, std::ostream* out) { *out << queue.name; }

class FullTransmitQueueTest : public FaultTest, public ::testing::WithParamInterface<FullQueue> {};

// One period of a control loop. True when the command was sent; `frames` is what came.
bool Cycle(ClosedLoop& loop, int& frames, bus::Clock::duration& longest) {
  const auto begin = bus::Clock::now();
  const bool sent = loop.Command(300);
  longest = std::max(longest, bus::Clock::now() - begin);
  loop.driver().CanDelayMs(ClosedLoop::kPeriodMs);
  frames += loop.ReadAll();
  return sent;
}

TEST_P(FullTransmitQueueTest, DisablesWritingAndNothingElseUntilARecovery) {
  ClosedLoop loop(MakeNamed("zl"));
  loop.PlugIn();
  ASSERT_TRUE(loop.ComesUp());
  bus::TrafficControl(GetParam().discipline);
  bus::Clock::duration longest{};
  int frames = 0;
  // Full again after each recovery, which the host cannot know before it has tried.
  for (int round = 0; round < 3; ++round) {
    int cycles = 0;
    while (loop.driver().GetCanError() == 0) {
      Cycle(loop, frames, longest);
      ASSERT_LT(++cycles, 1000) << "the queue takes every frame";
    }
    EXPECT_EQ(loop.driver().GetCanError(), 5U);
    EXPECT_EQ(loop.driver().GetWriteErrorCount(), 10U);
    frames = 0;
    for (int i = 0; i < 20; ++i) {
      EXPECT_FALSE(Cycle(loop, frames, longest));
    }
    EXPECT_GT(frames, 10) << "position reports come all the same";
    EXPECT_EQ(loop.driver().GetWriteErrorCount(), 10U);
    EXPECT_TRUE(loop.driver().CanRecover());
    EXPECT_EQ(loop.driver().GetCanError(), 0U);
  }
  // 20 ms are the library's own; the rest is room for a slow machine.
  EXPECT_LT(longest, std::chrono::seconds(2));

  EndTrafficControl("can0");
  if (loop.driver().GetCanError() != 0) {
    EXPECT_TRUE(loop.driver().CanRecover());
  }
  loop.ExpectTurnsAt(-120);
}

TEST_P(FullTransmitQueueTest, BringUpEndsInTimeAndCanBeRepeated) {
  ClosedLoop loop(MakeNamed("zl"));
  loop.PlugIn();
  bus::TrafficControl(GetParam().discipline);
  const auto begin = bus::Clock::now();
  EXPECT_GT(loop.BringUp(), 0);
  // 43 transfers of 100 ms at most; the rest is room for a slow machine.
  EXPECT_LT(bus::Clock::now() - begin, std::chrono::seconds(20));
  EXPECT_EQ(loop.driver().GetReadQueueSize(), 0U);

  EndTrafficControl("can0");
  EXPECT_TRUE(loop.driver().CanRecover());
  ASSERT_TRUE(loop.ComesUp());
  loop.ExpectTurnsAt(300);
}

INSTANTIATE_TEST_SUITE_P(Bus, FullTransmitQueueTest,
                         ::testing::Values(
                             // No room in the interface's queue: ENOBUFS at once.
                             FullQueue{"enobufs", "netem limit 1 delay 60s"},
                             // No room in the socket's buffer: a wait that ends with EAGAIN.
                             FullQueue{"full_buffer", "tbf rate 8bit burst 16b limit 100mb"}),
                         [](const ::testing::TestParamInfo<FullQueue>& test) {
                           return test.param.name;
                         });

}  // namespace
