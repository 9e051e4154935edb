// An interface that goes down, comes up, is deleted and made again every second, while four threads
// of a host work on the drive.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "fault_test.h"

namespace {

using std::chrono::milliseconds;

constexpr std::uint8_t kNode = ClosedLoop::kNode;

// A few seconds, or what the environment says: ./test --all lets it last a minute.
std::chrono::seconds Duration() {
  const char* seconds = std::getenv("MOTOR_DRIVER_STORM_SECONDS");
  return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 5);
}

// A thread that does the same again and again.
class Repeating {
 public:
  Repeating(milliseconds pause, std::function<void()> operation)
      : thread_([this, pause, operation = std::move(operation)] {
          for (; running_; ++rounds_) {
            operation();
            std::this_thread::sleep_for(pause);
          }
        }) {}
  ~Repeating() {
    running_ = false;
    thread_.join();
  }
  Repeating(const Repeating&) = delete;
  Repeating& operator=(const Repeating&) = delete;

  int rounds() const { return rounds_; }

 private:
  std::atomic<bool> running_{true};
  std::atomic<int> rounds_{0};
  std::thread thread_;
};

struct Counters {
  std::atomic<int> commands{0};
  std::atomic<int> readings{0};
  std::atomic<int> recoveries{0};
  std::atomic<int> bring_ups{0};
  std::atomic<int> answers{0};
};

// One second of what a bus can do to a host.
void Storm(ClosedLoop& loop) {
  std::this_thread::sleep_for(milliseconds(400));
  bus::SetDown("can0");
  std::this_thread::sleep_for(milliseconds(50));
  bus::SetUp("can0");
  std::this_thread::sleep_for(milliseconds(400));
  bus::DeletePair();
  loop.Unplug();
  std::this_thread::sleep_for(milliseconds(50));
  bus::CreatePair();
  loop.PlugIn();
}

// What each thread of a host does in one round.
void Recover(ClosedLoop& loop, Counters& counters) {
  if (loop.driver().GetCanError() != 0 && loop.driver().CanRecover()) {
    ++counters.recoveries;
    counters.bring_ups += loop.BringUp() == 0 ? 1 : 0;
  }
}

void Read(ClosedLoop& loop, Counters& counters) {
  double rpm[2] = {};
  // Counted, because none can be taken while the transfer of another thread lasts.
  for (std::uint32_t frames = loop.driver().GetReadQueueSize(); frames > 0; --frames) {
    counters.readings += loop.Read(rpm) ? 1 : 0;
  }
}

void Query(ClosedLoop& loop, Counters& counters) {
  std::uint32_t statusword = 0;
  counters.answers +=
      loop.driver().SdoWriteWithFeedbackData(0x600 + kNode, 0x40, 0x6041, 0, 0, &statusword) ? 1
                                                                                             : 0;
  loop.driver().IsNodeOnline(kNode);
  loop.driver().GetDriverStatus(kNode);
  loop.driver().GetDriverStatusDetails(kNode);
  loop.driver().GetErrorCode(kNode);
}

class InterfaceStormTest : public FaultTest {};

TEST_F(InterfaceStormTest, LeavesADriveThatWorks) {
  ClosedLoop loop(MakeNamed("kinco"));
  auto& kinco = static_cast<KincoDriver&>(loop.driver());
  kinco.AddHeartbeatId(0x700 + kNode);
  kinco.StartErrorParsingLoop();
  loop.PlugIn();
  ASSERT_TRUE(loop.ComesUp());

  Counters counters;
  {
    const Repeating commanding(milliseconds(10),
                               [&] { counters.commands += loop.Command(300) ? 1 : 0; });
    const Repeating reading(milliseconds(5), [&] { Read(loop, counters); });
    const Repeating recovering(milliseconds(20), [&] { Recover(loop, counters); });
    const Repeating querying(milliseconds(20), [&] { Query(loop, counters); });
    int storms = 0;
    for (const auto end = bus::Clock::now() + Duration(); bus::Clock::now() < end; ++storms) {
      Storm(loop);
    }
    std::fprintf(stderr,
                 "%d storms: %d commands sent, %d readings, %d recoveries, %d bring-ups, "
                 "%d answers\n",
                 storms, counters.commands.load(), counters.readings.load(),
                 counters.recoveries.load(), counters.bring_ups.load(), counters.answers.load());
    EXPECT_GT(commanding.rounds(), storms);
    EXPECT_GT(querying.rounds(), storms);
    EXPECT_GE(counters.recoveries, storms);
  }
  // Each of them got through between two storms.
  EXPECT_GT(counters.commands, 0);
  EXPECT_GT(counters.readings, 0);
  EXPECT_GT(counters.bring_ups, 0);
  EXPECT_GT(counters.answers, 0);

  ASSERT_TRUE(Eventually([&] {
    return loop.driver().GetCanError() == 0 || loop.driver().CanRecover();
  })) << loop.driver().GetCanError();
  ASSERT_TRUE(loop.ComesUp());
  loop.ExpectTurnsAt(-120);
  loop.ExpectTurnsAt(0);
  // The supervision has its own socket, which it recovers by itself within a second.
  EXPECT_TRUE(Eventually([&] { return kinco.GetDriverStatus(kNode) == DriverStatus::Ready; }))
      << kinco.GetDriverStatusDetails(kNode);
  kinco.StopErrorParsingLoop();
}

}  // namespace
