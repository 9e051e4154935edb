// A host process that is stopped (SIGSTOP) for half a second in every phase and goes on: no fault
// that there is none, and zero at its end.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <ostream>
#include <string>
#include <tuple>

#include "matrix_faults.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;

// What the host tells at its end.
struct Told {
  bool up;
  bool turned;
  bool stopped;
  Fault fault;
  State state;
};

// A child process, made before this one has threads of its own.
class Host {
 public:
  Host(const Vehicle& vehicle, Phase phase) {
    EXPECT_EQ(::pipe(go_), 0);
    EXPECT_EQ(::pipe(said_), 0);
    process_ = ::fork();
    if (process_ == 0) {
      ::alarm(60);
      char byte = 0;
      if (::read(go_[0], &byte, 1) == 1) {
        Drive(vehicle, phase);
      }
      ::_exit(0);
    }
    ::close(said_[1]);
  }
  ~Host() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    for (const int descriptor : {go_[0], go_[1], said_[0]}) {
      ::close(descriptor);
    }
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void Go() { EXPECT_EQ(::write(go_[1], "g", 1), 1); }
  // When it is in its phase.
  bool WaitPhase() {
    char byte = 0;
    return ::read(said_[0], &byte, 1) == 1;
  }
  void StopFor(milliseconds time) const {
    ::kill(process_, SIGSTOP);
    std::this_thread::sleep_for(time);
    ::kill(process_, SIGCONT);
  }
  bool WaitEnd(Told& told) {
    return ::read(said_[0], &told, sizeof(told)) == static_cast<ssize_t>(sizeof(told));
  }

 private:
  void Drive(const Vehicle& vehicle, Phase phase) {
    Told told = {};
    {
      Wheels wheels(vehicle);
      told.up = wheels.BringUp([&](const std::string& step) {
        const bool before = step == "node 1: zero" && phase == Phase::kBeforeEnabling;
        if (before || (step == "node 2: set-up" && phase == Phase::kBringUp)) {
          Say();
        }
      });
      if (phase == Phase::kReady) {
        Say();
        Command(wheels, 0, milliseconds(1000));
      }
      told.turned = TurnBoth(wheels);
      if (phase == Phase::kRunning) {
        Say();
        Command(wheels, 60, milliseconds(1500));
      }
      Command(wheels, 60, milliseconds(50));
      const Report report = wheels.GetReport();
      told.fault = report.fault;
      told.state = report.state;
      auto stopped = std::async(std::launch::async, [&] { return wheels.Stop(); });
      if (phase == Phase::kStopping) {
        Say();
      }
      told.stopped = stopped.get();
    }
    [[maybe_unused]] const ssize_t written = ::write(said_[1], &told, sizeof(told));
  }

  // Says that the phase is there, and leaves time for what comes.
  void Say() const {
    [[maybe_unused]] const ssize_t written = ::write(said_[1], "p", 1);
    std::this_thread::sleep_for(milliseconds(100));
  }

  static void Command(Wheels& wheels, double rpm, milliseconds time) {
    const double speeds[] = {rpm, rpm};
    for (const auto end = bus::Clock::now() + time; bus::Clock::now() < end;) {
      wheels.Command(speeds, 2);
      std::this_thread::sleep_for(milliseconds(10));
    }
  }

  static bool TurnBoth(Wheels& wheels) {
    const auto turns = [&](std::size_t wheel) {
      return std::abs(wheels.GetWheel(wheel).measured_rpm - 60) < 3;
    };
    for (int attempt = 0; attempt < 30 && !(turns(0) && turns(1)); ++attempt) {
      Command(wheels, 60, milliseconds(100));
    }
    return turns(0) && turns(1);
  }

  int go_[2] = {-1, -1};
  int said_[2] = {-1, -1};
  pid_t process_ = -1;
};

class StoppedHostTest : public WheelsTest,
                        public ::testing::WithParamInterface<std::tuple<wire::DriveMake, Phase>> {};

TEST_P(StoppedHostTest, GoesOnAndEndsAtZero) {
  const auto& [make, phase] = GetParam();
  // Shorter than the time for which it is stopped: only what it could hear counts.
  Vehicle vehicle = TwoWheels(make);
  vehicle.heartbeat_timeout = milliseconds(450);
  vehicle.feedback_timeout = milliseconds(450);
  ASSERT_LT(vehicle.heartbeat_timeout, milliseconds(500));
  Host host(vehicle, phase);
  {
    SimulatedDrives drives(make);
    bus::FarEnd bus_record;
    host.Go();
    ASSERT_TRUE(host.WaitPhase());
    host.StopFor(milliseconds(500));
    Told told = {};
    ASSERT_TRUE(host.WaitEnd(told));
    EXPECT_TRUE(told.up);
    EXPECT_TRUE(told.turned);
    EXPECT_TRUE(told.stopped);
    EXPECT_EQ(told.fault, Fault::kNone);
    EXPECT_EQ(told.state, State::kRunning);
    EXPECT_EQ(drives.FastestRpm(), 0);
    wire::ExpectLastSpeedsZero(make, TwoNodes(), bus_record.Records());
    wire::ExpectZeroConfirmedFirst(make, TwoNodes(), bus_record.Records());
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, StoppedHostTest,
                         ::testing::Combine(::testing::ValuesIn(wire::DriveMakes()),
                                            ::testing::ValuesIn(kPhases)),
                         [](const ::testing::TestParamInfo<StoppedHostTest::ParamType>& test) {
                           return std::get<0>(test.param).name + "_" +
                                  std::to_string(static_cast<int>(std::get<1>(test.param)));
                         });

}  // namespace
