// motorctl guard: however its command ends, the last speed on the wire is zero.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "guarded.h"

namespace {

using std::chrono::milliseconds;

class GuardMakeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {};

INSTANTIATE_TEST_SUITE_P(Makes, GuardMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(GuardMakeTest, StopsTheWheelOfAKilledHost) {
  const std::string make = GetParam().name;
  sim::SimulatedDrive drive(DriveOptions(make));
  Process guard(With({"guard", "1", "--make", make, "--", MOTORCTL}, JogLine(make, "60")));
  ASSERT_TRUE(Eventually([&drive] { return std::abs(drive.SpeedRpm()) > 50; })) << guard.Err();
  bus::FarEnd record;
  const std::vector<pid_t> hosts = Children(guard.pid());
  ASSERT_EQ(hosts.size(), 1U);
  ::kill(hosts.front(), SIGKILL);
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL) << guard.Err();
  EXPECT_TRUE(Contains(guard.Err(), "ended by signal 9; the wheels stand\n")) << guard.Err();
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
}

struct Ending {
  const char* name;
  const char* step;
  int status;
};

class GuardEndingTest : public GuardTest, public ::testing::WithParamInterface<Ending> {};

INSTANTIATE_TEST_SUITE_P(Endings, GuardEndingTest,
                         ::testing::Values(Ending{"WithSuccess", "exit=0", 0},
                                           Ending{"WithAStatus", "exit=3", 3},
                                           Ending{"ByAbort", "abort", 128 + SIGABRT}),
                         [](const auto& ending) { return ending.param.name; });

TEST_P(GuardEndingTest, StopsTheWheelsAndPassesTheStatusOn) {
  BringUp();
  Process guard(HostLine({"turn=1500", GetParam().step}));
  ASSERT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), GetParam().status) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, SendsNothingForACommandThatCannotBeExecuted) {
  bus::FarEnd record;
  Result result = Motorctl(GuardLine({"no-such-command"}));
  EXPECT_EQ(result.status, 127);
  EXPECT_EQ(result.err,
            "motorctl: no-such-command cannot be executed: No such file or directory; nothing was "
            "sent\n");
  result = Motorctl(GuardLine({"/etc/passwd"}));
  EXPECT_EQ(result.status, 126);
  EXPECT_EQ(Motorctl(GuardLine({})).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--make", "zl"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "--make", "zl", "--", "true"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--", "true"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--vehicle", "/nowhere", "--", "true"}).status, 125);
  EXPECT_EQ(Sent(record), std::vector<std::string>());
}

TEST_F(GuardTest, DoesNotStartACommandWithoutABus) {
  const std::string mark = ::testing::TempDir() + "/started";
  Result result = Motorctl(With({"--interface", "can7"}, GuardLine({"touch", mark})));
  EXPECT_EQ(result.status, 125);
  EXPECT_TRUE(Contains(result.err, "touch was not started: there is no CAN interface can7"))
      << result.err;
  bus::SetDown("can0");
  result = Motorctl(GuardLine({"touch", mark}));
  EXPECT_EQ(result.status, 125);
  EXPECT_TRUE(Contains(result.err, "can0")) << result.err;
  EXPECT_FALSE(std::filesystem::exists(mark));
}

TEST_F(GuardTest, EndsWhatLeftTheProcessGroup) {
  BringUp();
  bus::FarEnd record;
  Process guard(HostLine({"leave", "turn=60000"}));
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  record.Forget();
  std::this_thread::sleep_for(milliseconds(200));
  for (const std::string& frame : record.Frames()) EXPECT_FALSE(IsSpeed(frame)) << frame;
  ExpectStanding();
}

TEST_F(GuardTest, PassesSignalsOn) {
  {
    Process guard(GuardedJog("60"));
    ASSERT_TRUE(Turns()) << guard.Err();
    guard.Signal(SIGTERM);
    EXPECT_EQ(guard.Wait(), 1) << guard.Err();
    EXPECT_TRUE(Contains(guard.Err(), "interrupted")) << guard.Err();
    ExpectStanding();
  }
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGABRT}) {
    Process guard(HostLine({"sleep=60000"}));
    Host(guard);
    guard.Signal(signal);
    EXPECT_EQ(guard.Wait(), 128 + signal) << guard.Err();
  }
}

TEST_F(GuardTest, EndsAStoppedCommandWhenAsked) {
  Process guard(HostLine({"stop"}));
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Err(), "is stopped"); }));
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

TEST_F(GuardTest, TakesItsHostDownWhenItIsKilledItself) {
  Process guard(GuardedJog("60"));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  guard.Signal(SIGKILL);
  EXPECT_EQ(guard.Wait(), -1);
  EXPECT_TRUE(Eventually([host] { return !Lives(host); }));
  ExpectStanding();
}

TEST_F(GuardTest, SaysInCapitalsWhenTheStopIsNotConfirmed) {
  Process guard(HostLine({"sleep=500"}));
  Host(guard);
  drive_.PowerCut();
  EXPECT_EQ(guard.Wait(), 1);
  EXPECT_TRUE(Contains(guard.Err(), "THE STOP IS NOT CONFIRMED: NODE 1 MAY STILL TURN"))
      << guard.Err();
}

TEST_F(GuardTest, IsTheOnlyOneOfItsNode) {
  Process first(HostLine({"sleep=60000"}));
  Host(first);
  bus::FarEnd record;
  for (int attempt = 0; attempt < 40; ++attempt) {
    const Result second = Motorctl(GuardLine({"true"}));
    EXPECT_EQ(second.status, 125);
    EXPECT_EQ(second.err,
              "motorctl: true was not started: node 1 on can0 is guarded already, by "
              "process " +
                  std::to_string(first.pid()) + "\n");
  }
  EXPECT_EQ(Sent(record), std::vector<std::string>());
  EXPECT_EQ(Motorctl({"guard", "2", "--make", "fake", "--", "true"}).status, 0);
  first.Signal(SIGKILL);
  first.Wait();
  EXPECT_EQ(Motorctl(GuardLine({"true"})).status, 0);
}

}  // namespace
