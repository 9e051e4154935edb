// A drive that dies in the middle of its bring-up and comes back: a simulator that is killed and
// started again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "far_end.h"
#include "fault_test.h"

namespace {

using std::chrono::milliseconds;

// The simulator as a process of its own.
class Simulator {
 public:
  explicit Simulator(const std::string& make, const std::string& fault = "") {
    std::vector<std::string> words = {MOTOR_DRIVE_SIM, "--interface", "can1", "--make", make};
    if (!fault.empty()) {
      words.insert(words.end(), {"--fault", fault});
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    int said[2] = {-1, -1};
    EXPECT_EQ(::pipe2(said, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, said[1], STDERR_FILENO);
    EXPECT_EQ(
        ::posix_spawn(&process_, MOTOR_DRIVE_SIM, &actions, nullptr, arguments.data(), environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(said[1]);
    said_ = said[0];
    // It says one line once it is on the bus.
    char byte = 0;
    while (byte != '\n' && ::read(said_, &byte, 1) == 1) {
    }
    EXPECT_EQ(byte, '\n') << "it did not start";
  }
  ~Simulator() {
    ::close(said_);
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

 private:
  pid_t process_ = -1;
  int said_ = -1;  // open as long as it lives, that it may say more
};

class KilledDriveTest : public FaultTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(KilledDriveTest, InMidBringUpCostsFailedWritesAndIsBroughtUpAgain) {
  ClosedLoop loop(GetParam());
  {
    bus::FarEnd bus_traffic;
    std::future<int> failures;
    {
      // Slow, so that it is in the middle when it dies.
      const Simulator slow(GetParam().name, "delay-replies-ms=30");
      failures = std::async(std::launch::async, [&] {
        return static_cast<int>(
            loop.driver().EnableSpeedModeAndPdoMode(ClosedLoop::kNode, ClosedLoop::kPeriodMs));
      });
      EXPECT_TRUE(bus_traffic.WaitFrames(3));
    }
    std::this_thread::sleep_for(milliseconds(150));
    const Simulator reborn(GetParam().name);
    const int failed = failures.get();
    EXPECT_GT(failed, 0);
    EXPECT_LT(failed, static_cast<int>(bus_traffic.Frames().size()));

    ASSERT_TRUE(loop.ComesUp());
    for (const int target : {300, 0}) {
      double mean[2] = {};
      EXPECT_TRUE(Eventually([&] {
        loop.Measure(target, mean);
        return std::abs(mean[0] - target) <= ClosedLoop::Tolerance(target);
      })) << mean[0]
          << " in place of " << target;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, KilledDriveTest, ::testing::ValuesIn(tested::Makes()),
                         [](const ::testing::TestParamInfo<tested::Make>& test) {
                           return test.param.name;
                         });

}  // namespace
