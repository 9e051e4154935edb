// Every fault in every phase with every make: whatever happens, the last speed on the wire is zero,
// nothing was enabled before zero was confirmed, the report says what it was, nothing is left
// behind, and what can be mended turns again. All faults while the wheels turn, with all makes; in
// the other phases so that every two of make, phase and fault meet. MOTOR_DRIVER_WHOLE_MATRIX: all.
#include <array>
#include <chrono>
#include <cstdlib>
#include <future>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "matrix_faults.h"
#include "wheels_test.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::Wheels;
using std::chrono::milliseconds;

constexpr const char* kPhaseNames[] = {"before_enabling", "bring_up", "ready", "running",
                                       "stopping"};

struct Cell {
  const wire::DriveMake* make;
  Phase phase;
  const MatrixFault* fault;
};

std::string NameOfCell(const Cell& cell) {
  return cell.make->name + "_" + kPhaseNames[static_cast<int>(cell.phase)] + "_" + cell.fault->name;
}

void PrintTo(const Cell& cell, std::ostream* out) { *out << NameOfCell(cell); }

std::vector<Cell> Cells() {
  const bool all = std::getenv("MOTOR_DRIVER_WHOLE_MATRIX") != nullptr;
  constexpr std::array<Phase, 4> kOthers = {Phase::kBeforeEnabling, Phase::kBringUp, Phase::kReady,
                                            Phase::kStopping};
  std::vector<Cell> cells;
  for (std::size_t fault = 0; fault < MatrixFaults().size(); ++fault) {
    for (std::size_t make = 0; make < wire::DriveMakes().size(); ++make) {
      const MatrixFault& which = MatrixFaults()[fault];
      const wire::DriveMake& of_make = wire::DriveMakes()[make];
      if (which.only_with_stop && !of_make.has_emergency_stop) {
        continue;
      }
      for (const Phase phase : kPhases) {
        if (all || which.only_with_stop || phase == Phase::kRunning ||
            phase == kOthers[(fault + make) % kOthers.size()]) {
          cells.push_back({&of_make, phase, &which});
        }
      }
    }
  }
  return cells;
}

bool Moves(Phase phase) { return phase != Phase::kBeforeEnabling && phase != Phase::kBringUp; }

std::set<Fault> Expected(const Cell& cell) {
  // No write of this set-up clears an error.
  if (!Moves(cell.phase) && cell.make->name == "amps" && cell.fault->name == "trips") {
    return {Fault::kDriveError};
  }
  switch (cell.phase) {
    case Phase::kBeforeEnabling:
      return cell.fault->before_enabling;
    case Phase::kBringUp:
      return cell.fault->in_bring_up;
    case Phase::kRunning:
      break;
    default:
      if (cell.fault->in_motion == std::set<Fault>{Fault::kNotFollowing}) {
        return {Fault::kNone};  // a blocked wheel stands
      }
  }
  return cell.fault->in_motion;
}

class FaultMatrixTest : public WheelsTest, public ::testing::WithParamInterface<Cell> {
 protected:
  const Cell& cell_ = GetParam();

  // Leads the vehicle into the phase and lets the fault strike in it.
  void StrikeInPhase(Scene& scene, Wheels& wheels) {
    const auto strike = [&] { cell_.fault->strike(scene); };
    if (!Moves(cell_.phase)) {
      const std::string step =
          cell_.phase == Phase::kBeforeEnabling ? "node 1: zero" : "node 2: set-up";
      try {
        wheels.BringUp([&](const std::string& begun) {
          ended_in_zero_step_ = begun == "node 1: zero" || begun == "node 2: zero";
          if (begun == step) {
            strike();
          }
        });
      } catch (const std::runtime_error&) {
        thrown_ = true;
      }
      return;
    }
    up_ = BroughtUp(wheels);
    if (cell_.phase == Phase::kReady) {
      strike();
      return Observe(wheels);
    }
    Commanding host(wheels, 60);
    turned_ = TurnsAt(scene.drives, 60);
    if (cell_.phase == Phase::kRunning) {
      if (cell_.fault->name == "host_hangs") {
        host.End();
      }
      strike();
      return Observe(wheels);
    }
    host.End();
    auto stopped = std::async(std::launch::async, [&] { return wheels.Stop(); });
    std::this_thread::sleep_for(milliseconds(40));
    strike();
    stopped.wait();
    Observe(wheels);
  }

  void Observe(const Wheels& wheels) const {
    const bool expected = Expected(cell_).count(Fault::kNone) == 0;
    const auto end = bus::Clock::now() + (expected ? milliseconds(3000) : milliseconds(1000));
    while (bus::Clock::now() < end && wheels.GetReport().fault == Fault::kNone) {
      std::this_thread::sleep_for(milliseconds(10));
    }
    std::this_thread::sleep_for(milliseconds(300));
  }

  // The whole life of a vehicle, with the fault in it.
  void Drive(Scene& scene) {
    // A machine that runs several of these stalls for longer than a vehicle would like.
    motor_driver::Vehicle vehicle = TwoWheels(scene.make);
    vehicle.heartbeat_timeout = milliseconds(750);
    vehicle.feedback_timeout = milliseconds(600);
    vehicle.command_timeout = milliseconds(300);
    Wheels wheels(vehicle);
    StrikeInPhase(scene, wheels);
    const Report report = wheels.GetReport();
    const std::vector<bus::RecordedFrame> so_far = scene.Records();
    cell_.fault->mend(scene);
    // Only now: standard output may have been held.
    EXPECT_TRUE(up_) << report.reason;
    EXPECT_TRUE(turned_) << report.reason;
    EXPECT_EQ(thrown_, Throws());
    EXPECT_EQ(Expected(cell_).count(report.fault), 1U)
        << static_cast<int>(report.fault) << " " << report.reason;
    if (report.fault == Fault::kNone) {
      const bool commanded = cell_.phase == Phase::kRunning;
      const bool hangs = cell_.fault->name == "host_hangs";
      EXPECT_EQ(report.state, commanded && !hangs ? State::kRunning : State::kReady);
      EXPECT_TRUE(report.command_stale || !commanded || !hangs);
    } else {
      ExpectFault(report);
      if (cell_.fault->bus_works) {
        wire::ExpectLastSpeedsZero(scene.make, TwoNodes(), so_far);
      }
      EXPECT_TRUE(Cleared(wheels)) << wheels.GetReport().reason;
    }
    EXPECT_TRUE(Turns(scene, wheels)) << wheels.GetReport().reason;
  }

  template <typename Scene>
  bool Turns(Scene& scene, Wheels& wheels) const {
    // Heartbeats that were lost may be missed only now, when frames are lost no more.
    const int attempts = cell_.fault->name == "loss" ? 3 : 1;
    for (int attempt = 0; attempt < attempts; ++attempt) {
      if (attempt > 0 && !wheels.Clear()) {
        return false;
      }
      const Commanding host(wheels, 60);
      if (TurnsAt(scene.drives, 60)) {
        return true;
      }
    }
    return false;
  }

  void ExpectFault(const Report& report) const {
    EXPECT_FALSE(report.reason.empty());
    EXPECT_EQ(report.state, ended_in_zero_step_ ? State::kOff : State::kFault);
    EXPECT_TRUE(cell_.fault->node == -1 || report.node == cell_.fault->node) << report.node;
  }

  bool Throws() const { return cell_.fault->name == "host_throws"; }

  bool up_ = true;
  bool turned_ = true;
  bool thrown_ = false;
  bool ended_in_zero_step_ = false;  // the bring-up: nothing was enabled
};

TEST_P(FaultMatrixTest, EndsAtZeroAndSaysWhy) {
  Scene scene(*cell_.make);
  scene.phase = cell_.phase;
  try {
    Drive(scene);
    EXPECT_FALSE(Throws() && Moves(cell_.phase));
  } catch (const std::runtime_error& error) {
    EXPECT_TRUE(Throws() && Moves(cell_.phase)) << error.what();
  }
  EXPECT_EQ(scene.drives.FastestRpm(), 0);
  const std::vector<bus::RecordedFrame> records = scene.Records();
  wire::ExpectLastSpeedsZero(scene.make, TwoNodes(), records);
  wire::ExpectZeroConfirmedFirst(scene.make, TwoNodes(), records);
}

INSTANTIATE_TEST_SUITE_P(All, FaultMatrixTest, ::testing::ValuesIn(Cells()),
                         [](const ::testing::TestParamInfo<Cell>& test) {
                           return NameOfCell(test.param);
                         });

}  // namespace
