// motorctl guard and a command that lives on: stopped, hanging, or silent.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>

#include "guarded.h"

namespace {

using std::chrono::milliseconds;

Arguments HangingLine(const std::string& deceleration, const Arguments& options = {}) {
  return GuardLine({HANGING_HOST, deceleration}, options);
}

TEST_F(GuardTest, StopsTheWheelsOfAStoppedCommandAndLetsItGoOn) {
  Process guard(GuardedJog("8"));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  ::kill(host, SIGSTOP);
  EXPECT_TRUE(Eventually([this] { return drive_.SpeedRpm() == 0.0; }));
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Err(), "is stopped"); }));
  ExpectStanding();
  EXPECT_TRUE(Lives(host));
  ::kill(host, SIGCONT);
  EXPECT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  EXPECT_FALSE(Contains(guard.Err(), "NOT CONFIRMED")) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, EndsAStoppedCommandThatHasToBeFresh) {
  Process guard(GuardedJog("60", {"--fresh-ms", "300"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  ::kill(Host(guard), SIGSTOP);
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL);
  EXPECT_TRUE(Contains(guard.Err(), "was ended (no sign of life for 300 ms) and ended by signal 9"))
      << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, EndsACommandThatTurnsWheelsWithoutASignOfLife) {
  BringUp();
  Process guard(HostLine({"drive=1000", "turn=60000"}, {"--fresh-ms", "300"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, LeavesACommandAloneThatNeverSpoke) {
  EXPECT_EQ(Motorctl(HostLine({"sleep=500", "exit=5"}, {"--fresh-ms", "100"})).status, 5);
}

TEST_F(GuardTest, LeavesACommandAloneWhoseWheelsAreOff) {
  EXPECT_EQ(Motorctl(HostLine({"beat=300", "say=X_WHEELS=OFF", "sleep=800", "exit=6"},
                              {"--fresh-ms", "250"}))
                .status,
            6);
}

TEST_F(GuardTest, FindsAHealthyHostFreshToItsEnd) {
  Process guard(GuardedJog("3", {"--fresh-ms", "300"}));
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  ExpectStanding();
}

// Without a guard's help.
TEST_F(GuardTest, LeavesAHostAloneOfWhichOneThreadHangs) {
  Process guard(HangingLine("300"));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  EXPECT_TRUE(Eventually([this] { return drive_.SpeedRpm() == 0.0; }));
  ExpectStanding();
  EXPECT_TRUE(Lives(host));
  EXPECT_EQ(guard.Err(), "");
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

TEST_F(GuardTest, FindsAHostFreshOfWhichOneThreadHangsOnceItsWheelStands) {
  Process guard(HangingLine("300", {"--fresh-ms", "1000"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  EXPECT_TRUE(Eventually([this] { return drive_.SpeedRpm() == 0.0; }));
  std::this_thread::sleep_for(milliseconds(1500));
  EXPECT_TRUE(Lives(host)) << guard.Err();
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

// The ramp of `Wheels` would take 12 s.
TEST_F(GuardTest, EndsAHostOfWhichOneThreadHangsWhileItsWheelTurns) {
  Process guard(HangingLine("5", {"--fresh-ms", "300"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  ASSERT_TRUE(Eventually([this] { return drive_.SpeedRpm() > 59.5; }));
  ASSERT_TRUE(Eventually([this] { return drive_.SpeedRpm() < 59.5; }));
  const auto falls = bus::Clock::now();
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL) << guard.Err();
  EXPECT_LT(bus::Clock::now() - falls, std::chrono::seconds(6));
  EXPECT_TRUE(Contains(guard.Err(), "was ended (no sign of life for 300 ms) and ended by signal 9"))
      << guard.Err();
  ExpectStanding();
}

}  // namespace
