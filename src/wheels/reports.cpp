// What any thread of a host may do at any time: command, and look.
#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "wheels/control.h"

namespace motor_driver {

bool Control::Command(const double* rpm, std::size_t count) {
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  const State state = shared_.report.state;
  if (rpm == nullptr || count != vehicle_.wheels.size() ||
      (state != State::kReady && state != State::kRunning)) {
    return false;
  }
  const bool numbers =
      std::all_of(rpm, rpm + count, [](double value) { return std::isfinite(value); });
  for (std::size_t wheel = 0; wheel < count; ++wheel) {
    shared_.command[wheel] =
        numbers ? std::clamp(rpm[wheel], -vehicle_.max_rpm, vehicle_.max_rpm) : 0;
  }
  shared_.has_command = true;
  shared_.commanded_at = Clock::now();
  shared_.report.command_stale = false;
  return numbers;
}

Report Control::GetReport() const {
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  return shared_.report;
}

WheelReport Control::GetWheel(std::size_t wheel) const {
  if (wheel >= vehicle_.wheels.size()) {
    throw std::out_of_range("there is no such wheel");
  }
  WheelReport report;
  double revolutions = 0;
  {
    const std::lock_guard<PriorityMutex> lock(shared_mutex_);
    report.target_rpm = shared_.target_rpm[wheel];
    revolutions = shared_.revolutions[wheel];
  }
  if (drives_.make().simulated) {
    report.measured_rpm = report.target_rpm;
    report.revolutions = revolutions;
    report.measured_at = Clock::now();
    return report;
  }
  const Wheel& which = vehicle_.wheels[wheel];
  std::size_t node = 0;
  while (drives_.nodes()[node].id != which.node) {
    ++node;
  }
  const auto motor = static_cast<std::size_t>(which.motor) - 1;
  const HeardOfMotor heard = drives_.watch().Motor(node, motor);
  report.measured_rpm = WheelRpm(which, heard.rpm);
  report.revolutions = WheelRpm(which, heard.revolutions);
  report.measured_at = heard.measured_at;
  report.lost_reports = heard.lost_reports;
  const HeardOfNode of_node = drives_.watch().Node(node);
  report.error_code =
      drives_.make().error_code.bits != 0 ? of_node.error_codes[motor] : of_node.emergency_code;
  return report;
}

std::vector<SetUpFailure> Control::Failures() const {
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  return shared_.failures;
}

}  // namespace motor_driver
