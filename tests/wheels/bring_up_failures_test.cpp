// What keeps a vehicle from getting ready: it is told which node and why, nothing was enabled
// before zero was confirmed, and zeros flow to what was.
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "wheels/set_up_failure.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::SetUpFailure;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;
using std::chrono::milliseconds;
using std::chrono::seconds;

using Records = std::vector<bus::RecordedFrame>;

void ExpectNothingEnabled(const Records& records) {
  for (const bus::RecordedFrame& record : records) {
    for (const int node : TwoNodes()) {
      EXPECT_FALSE(wire::Enables(node, record.text)) << record.text;
    }
  }
}

class BringUpFailuresTest : public EveryMakeTest {
 protected:
  void ExpectFault(const Wheels& wheels, State state, Fault fault, int node,
                   const std::string& part_of_reason) {
    const Report report = wheels.GetReport();
    EXPECT_EQ(report.state, state) << report.reason;
    EXPECT_EQ(report.fault, fault) << report.reason;
    EXPECT_EQ(report.node, node) << report.reason;
    EXPECT_NE(report.reason.find(part_of_reason), std::string::npos) << report.reason;
  }

  // Commands of speed to node 1: there are no others.
  int CountZeros(bus::FarEnd& bus_record) {
    int zeros = 0;
    for (const bus::RecordedFrame& record : bus_record.Records()) {
      const auto rpm = wire::CommandedRpm(make_, 1, record.text);
      EXPECT_EQ(rpm.value_or(0), 0) << record.text;
      zeros += rpm ? 1 : 0;
    }
    return zeros;
  }

  // As soon as the fault is gone, the vehicle gets ready, and turns.
  void ExpectClears(Wheels& wheels, SimulatedDrives& drives) {
    ASSERT_TRUE(wheels.Clear() || wheels.Clear()) << wheels.GetReport().reason;
    EXPECT_EQ(wheels.GetReport().state, State::kReady);
    EXPECT_EQ(wheels.GetReport().fault, Fault::kNone);
    EXPECT_EQ(wheels.GetReport().reason, "");
    EXPECT_EQ(drives.FastestRpm(), 0);
    {
      const Commanding host(wheels, 60);
      EXPECT_TRUE(TurnsAt(drives, 60)) << wheels.GetReport().reason;
    }
    EXPECT_TRUE(wheels.Stop());
  }

  // Something goes wrong with the drives once the step has begun.
  template <typename Strike>
  void BringUpWith(Wheels& wheels, const std::string& step, Strike strike) {
    EXPECT_FALSE(wheels.BringUp([&](const std::string& begun) {
      if (begun == step) {
        strike();
      }
    }));
  }

  const wire::DriveMake& make_ = GetParam();
};

// Each waits for five seconds: with one make that is woken, and one that is supervised.
class AwaitedInVainTest : public BringUpFailuresTest {};

TEST_P(BringUpFailuresTest, NoInterface) {
  Vehicle vehicle = TwoWheels(make_);
  vehicle.interface = "can9";
  Wheels wheels(vehicle);
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kOff, Fault::kNoInterface, 0, "there is no CAN interface can9");
  EXPECT_FALSE(wheels.Clear());
}

TEST_P(BringUpFailuresTest, InterfaceDown) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  bus::SetDown("can0");
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kOff, Fault::kBusFailed, 0, "can0");
  bus::SetUp("can0");
  ExpectClears(wheels, drives);
}

TEST_P(AwaitedInVainTest, ANodeThatIsSilentForFiveSeconds) {
  SimulatedDrives drives(make_);
  bus::FarEnd bus_record;
  drives.Unplug(2);
  Wheels wheels(TwoWheels(make_));
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kOff, Fault::kNodeSilent, 2, "node 2 does not answer on can0");
  if (!make_.is_woken) {  // which takes its own time to find out
    EXPECT_GE(bus::Clock::now() - begin, seconds(5));
  }
  EXPECT_LT(bus::Clock::now() - begin, seconds(7));
  ExpectNothingEnabled(bus_record.Records());
  drives.PlugIn(2);
  ExpectClears(wheels, drives);
}

TEST_P(BringUpFailuresTest, ZeroThatIsRefusedEnablesNothing) {
  SimulatedDrives drives(make_);
  bus::FarEnd bus_record;
  drives[2].Inject(make_.commands_by_sdo ? "abort-object=0x2FF0" : "abort-object=0x60FF");
  Wheels wheels(TwoWheels(make_));
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kOff, Fault::kSetUpRefused, 2,
              "zero target velocity is refused, so nothing was enabled");
  const std::vector<SetUpFailure> failures = SetUpFailures(wheels);
  ASSERT_EQ(failures.size(), 1U);
  EXPECT_EQ(failures[0].node, 2);
  EXPECT_EQ(failures[0].index, make_.commands_by_sdo ? 0x2FF0 : 0x60FF);
  EXPECT_EQ(failures[0].value, 0U);
  EXPECT_EQ(failures[0].abort_code, 0x08000000U);
  ExpectNothingEnabled(bus_record.Records());
  drives[2].ClearFaults();
  ExpectClears(wheels, drives);
}

TEST_P(BringUpFailuresTest, CancelledBeforeEveryStepItIsInterrupted) {
  SimulatedDrives drives(make_);
  std::vector<std::string> steps;
  {
    Wheels wheels(TwoWheels(make_));
    ASSERT_TRUE(wheels.BringUp([&](const std::string& step) { steps.push_back(step); }))
        << wheels.GetReport().reason;
  }
  ASSERT_GE(steps.size(), 6U);
  EXPECT_EQ(steps.front(), "bus can0");
  EXPECT_EQ(steps.back(), "ready");
  for (const std::string& last : steps) {
    SCOPED_TRACE(last);
    Wheels wheels(TwoWheels(make_));
    bool cancelled = false;
    std::vector<std::string> begun;
    bus::FarEnd bus_record;
    EXPECT_FALSE(wheels.BringUp(
        [&](const std::string& step) {
          begun.push_back(step);
          cancelled = step == last;
        },
        [&] { return cancelled; }));
    EXPECT_EQ(begun.back(), last);
    EXPECT_EQ(wheels.GetReport().fault, Fault::kInterrupted) << wheels.GetReport().reason;
    const bool enabled = last == "ready" || last == "node 2: set-up";
    EXPECT_EQ(wheels.GetReport().state, enabled ? State::kFault : State::kOff);
    if (!enabled) {
      ExpectNothingEnabled(bus_record.Records());
      continue;
    }
    bus_record.Forget();
    EXPECT_TRUE(Eventually([&] { return CountZeros(bus_record) > 10; })) << "of every period";
    EXPECT_FALSE(wheels.BringUp()) << "in a fault";
    ExpectClears(wheels, drives);
  }
}

TEST_P(BringUpFailuresTest, AnExceptionInProgressComesOut) {
  SimulatedDrives drives(make_);
  for (const std::string last : {"node 1: zero", "ready"}) {
    SCOPED_TRACE(last);
    Wheels wheels(TwoWheels(make_));
    try {
      wheels.BringUp([&](const std::string& step) {
        if (step == last) {
          throw std::runtime_error("of the host");
        }
      });
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "of the host");
    }
    EXPECT_EQ(wheels.GetReport().fault, Fault::kInterrupted);
    EXPECT_EQ(wheels.GetReport().state, last == "ready" ? State::kFault : State::kOff);
    ExpectClears(wheels, drives);
  }
}

TEST_P(BringUpFailuresTest, ADriveThatTripsAgainIsNoSuccess) {
  SimulatedDrives drives(make_);
  drives[2].LatchError(0x2310);
  Wheels wheels(TwoWheels(make_));
  BringUpWith(wheels, "ready", [&] { drives[2].LatchError(0x2310); });
  ExpectFault(wheels, State::kFault, Fault::kDriveError, 2, "");
  ExpectClears(wheels, drives);
}

TEST_P(BringUpFailuresTest, ADriveThatIsNotEnabled) {
  SimulatedDrives drives(make_);
  drives[2].PressEmergencyStop();
  Wheels wheels(TwoWheels(make_));
  EXPECT_FALSE(wheels.BringUp());
  if (make_.has_emergency_stop) {
    ExpectFault(wheels, State::kFault, Fault::kEmergencyStop, 2, "node 2 is in emergency stop");
  } else {
    ExpectFault(wheels, State::kFault, Fault::kDriveError, 2, "node 2 is not enabled (statusword");
  }
  drives[2].ReleaseEmergencyStop();
  if (make_.name == "hls") {
    drives.PlugIn(2);  // nothing else leads a drive out of it that is not reset
  }
  ExpectClears(wheels, drives);
}

TEST_P(AwaitedInVainTest, NoHeartbeat) {
  SimulatedDrives drives(make_);
  drives[2].Inject("no-heartbeat-after-ms=0");
  Wheels wheels(TwoWheels(make_));
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kFault, Fault::kNodeSilent, 2, "node 2 sends no heartbeat");
  drives[2].ClearFaults();
  ExpectClears(wheels, drives);
}

TEST_P(AwaitedInVainTest, NoReports) {
  SimulatedDrives drives(make_);
  drives[2].Inject("no-reports-after-ms=0");
  Wheels wheels(TwoWheels(make_));
  EXPECT_FALSE(wheels.BringUp());
  ExpectFault(wheels, State::kFault, Fault::kNoFeedback, 2, "node 2 sends no position reports");
  drives[2].ClearFaults();
  ExpectClears(wheels, drives);
}

TEST_P(AwaitedInVainTest, AWheelThatTurnsAlthoughZeroIsCommanded) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  BringUpWith(wheels, "ready", [&] {
    drives.Deafen(2);
    drives.WriteTarget(2, 20);
  });
  ExpectFault(wheels, State::kFault, Fault::kNotFollowing, 2,
              "node 2 turns although zero speed is commanded");
  drives.PlugIn(2);
  ExpectClears(wheels, drives);
}

TEST_P(BringUpFailuresTest, WhileItRunsItIsRefused) {
  SimulatedDrives drives(make_);
  Wheels wheels(TwoWheels(make_));
  ASSERT_TRUE(BroughtUp(wheels)) << wheels.GetReport().reason;
  const Commanding host(wheels, 60);
  ASSERT_TRUE(TurnsAt(drives, 60));
  EXPECT_FALSE(wheels.BringUp());
  EXPECT_TRUE(wheels.Clear()) << "nothing to clear";
  EXPECT_EQ(wheels.GetReport().state, State::kRunning);
}

INSTANTIATE_TEST_SUITE_P(Makes, BringUpFailuresTest, ::testing::ValuesIn(wire::DriveMakes()),
                         NameOfMake<wire::DriveMake>);
INSTANTIATE_TEST_SUITE_P(Makes, AwaitedInVainTest,
                         ::testing::Values(MakeByName("tt"), MakeByName("kinco")),
                         NameOfMake<wire::DriveMake>);

}  // namespace
