// Real-time scheduling: the threads that carry motion have it, nobody else has, and where the
// system refuses it nothing is brought up.
#include <grp.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "far_end.h"
#include "fault_test.h"
#include "two_wheels.h"

namespace {

using motor_driver::Fault;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;

std::set<int> ThreadsOfThisProcess() {
  std::set<int> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(std::stoi(entry.path().filename().string()));
  }
  return threads;
}

struct Scheduled {
  int realtime = 0;  // SCHED_FIFO with the priority asked for
  int others = 0;    // as this thread
};

// Of the threads that were not there before.
Scheduled NewThreads(const std::set<int>& before, int priority) {
  Scheduled seen;
  for (const int thread : ThreadsOfThisProcess()) {
    if (before.count(thread) == 0) {
      sched_param parameters = {};
      const int policy = ::sched_getscheduler(thread);
      EXPECT_EQ(::sched_getparam(thread, &parameters), 0);
      const bool realtime = policy == SCHED_FIFO && parameters.sched_priority == priority;
      EXPECT_TRUE(realtime || policy == SCHED_OTHER) << thread << ": " << policy;
      ++(realtime ? seen.realtime : seen.others);
    }
  }
  return seen;
}

class RealtimeTest : public FaultTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(RealtimeTest, TheThreadsThatCarryMotionHaveItAfterARecoveryToo) {
  const bool supervised = GetParam().name == "kinco";
  const two_wheels::Drives drives(GetParam());
  const std::set<int> before = ThreadsOfThisProcess();
  Vehicle vehicle = two_wheels::VehicleOf(GetParam());
  vehicle.realtime_priority = 20;
  Wheels wheels(vehicle);
  ASSERT_TRUE(BroughtUp(wheels));
  const auto expect_scheduled = [&](const char* when) {
    const Scheduled seen = NewThreads(before, 20);
    // Control and receive thread; a supervision is one more and hears with another.
    EXPECT_EQ(seen.realtime, supervised ? 4 : 2) << when;
    EXPECT_EQ(seen.others, 1) << when << ": what writes to the outputs";
    EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER) << when << ": the host";
  };
  expect_scheduled("ready");

  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return wheels.GetReport().fault == Fault::kBusFailed; }))
      << wheels.GetReport().reason;
  bus::SetUp("can0");
  bool cleared = false;
  for (int again = 0; again < 3 && !cleared; ++again) {
    cleared = wheels.Clear();
  }
  ASSERT_TRUE(cleared) << wheels.GetReport().reason;
  expect_scheduled("after a recovery");
}

INSTANTIATE_TEST_SUITE_P(EveryMake, RealtimeTest, ::testing::ValuesIn(tested::Makes()),
                         [](const auto& tested) { return tested.param.name; });

class RefusedRealtimeTest : public FaultTest {};

// Of a process without privileges.
std::string OfAnOrdinaryUser(const std::function<std::string()>& body) {
  return support::RunForked([&body] {
           const rlimit none = {0, 0};
           constexpr unsigned kNobody = 65534;
           if (::setrlimit(RLIMIT_RTPRIO, &none) != 0 || ::setgroups(0, nullptr) != 0 ||
               ::setresgid(kNobody, kNobody, kNobody) != 0 ||
               ::setresuid(kNobody, kNobody, kNobody) != 0) {
             std::perror("cannot become an ordinary user");
           }
           const std::string text = body();
           std::fprintf(stderr, "%s", text.c_str());
         })
      .err;
}

TEST_F(RefusedRealtimeTest, APriorityThatTheSystemRefusesFailsTheBringUpAndSaysWhatToDo) {
  EXPECT_EQ(OfAnOrdinaryUser([] {
              bus::FarEnd far_end;
              far_end.ExpectSilence();
              Vehicle vehicle = two_wheels::VehicleOf(tested::Makes()[0]);
              vehicle.realtime_priority = 31;
              Wheels wheels(vehicle);
              std::string text = wheels.BringUp() ? "up\n" : "refused\n";
              text += wheels.Clear() ? "cleared\n" : "again\n";
              const auto report = wheels.GetReport();
              text += report.state == State::kOff ? "off\n" : "not off\n";
              text += report.fault == Fault::kNoRealtime ? "no real time\n" : "another fault\n";
              text += ::testing::Test::HasFailure() ? "failed\n" : "";
              return text + report.reason + "\n";
            }),
            "refused\nagain\noff\nno real time\n"
            "the system refuses real-time priority 31: put \"USER - rtprio 31\" into "
            "/etc/security/limits.d/motor_driver.conf and log in again, or \"LimitRTPRIO=31\" into "
            "the systemd unit\n");
}

TEST_F(RefusedRealtimeTest, WithoutAPriorityAnOrdinaryUserMayDrive) {
  EXPECT_EQ(OfAnOrdinaryUser([] {
              const tested::Make& zl = tested::Makes()[0];
              const two_wheels::Drives drives(zl);
              Wheels wheels(two_wheels::VehicleOf(zl));
              return std::string(BroughtUp(wheels) ? "up\n" : "refused\n");
            }),
            "up\n");
}

}  // namespace
