// The faults of the fault matrix: how each strikes, how it is mended, and what must come of it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "simulated_vehicle.h"

enum class Phase { kBeforeEnabling, kBringUp, kReady, kRunning, kStopping };

inline constexpr Phase kPhases[] = {Phase::kBeforeEnabling, Phase::kBringUp, Phase::kReady,
                                    Phase::kRunning, Phase::kStopping};

// The bus of one cell of the matrix, and whatever is wrong with it or with the host.
struct Scene {
  explicit Scene(const wire::DriveMake& which)
      : make(which), drives(which), bus_record(std::make_unique<bus::FarEnd>()) {}

  // All that passed the bus, also before its interfaces were made anew.
  std::vector<bus::RecordedFrame> Records() {
    std::vector<bus::RecordedFrame> all = earlier;
    for (const bus::RecordedFrame& record : bus_record->Records()) {
      all.push_back(record);
    }
    return all;
  }

  wire::DriveMake make;
  SimulatedDrives drives;
  std::unique_ptr<bus::FarEnd> bus_record;
  std::vector<bus::RecordedFrame> earlier;
  Phase phase = Phase::kReady;
  std::shared_ptr<void> held;  // undone when it goes
};

struct MatrixFault {
  std::string name;
  std::function<void(Scene&)> strike;
  std::function<void(Scene&)> mend;
  // What may come of it, when the drives can move and before; kNone: nothing at all.
  std::set<motor_driver::Fault> in_motion;
  std::set<motor_driver::Fault> before_enabling;
  std::set<motor_driver::Fault> in_bring_up;
  int node = 2;           // that is told
  bool bus_works = true;  // frames arrive while it lasts
  bool only_with_stop = false;
};

// The name is that of the row.
const std::vector<MatrixFault>& MatrixFaults();
