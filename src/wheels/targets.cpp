// What the control thread tells the wheels, from the command to the targets on the bus, and whether
// they stand.
#include <algorithm>
#include <cmath>

#include "wheels/control.h"
#include "wheels/limiter.h"

namespace motor_driver {

// What the wheels shall do: the command as long as it is fresh, otherwise stand.
Control::Speeds Control::Goals(Clock::time_point now) {
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  Report& report = shared_.report;
  const bool follows = report.state == State::kReady || report.state == State::kRunning;
  if (!follows || !shared_.has_command) {
    return {};
  }
  report.command_stale = now - shared_.commanded_at > vehicle_.command_timeout;
  return report.command_stale ? Speeds() : shared_.command;
}

void Control::Move(const Speeds& goals) {
  const State state = CurrentState();
  const bool fault = state == State::kFault;
  const double period_s = std::chrono::duration<double>(vehicle_.period).count();
  const double up = vehicle_.max_acceleration * period_s;
  const double down = (fault ? vehicle_.fault_deceleration : vehicle_.max_deceleration) * period_s;
  bool wanted = false;
  for (std::size_t wheel = 0; wheel < vehicle_.wheels.size(); ++wheel) {
    speeds_[wheel] = fault && abrupt_ ? 0 : Approach(speeds_[wheel], goals[wheel], up, down);
    wanted = wanted || goals[wheel] != 0;
  }
  if (state == State::kReady && wanted) {
    SetState(State::kRunning);
  }
  for (std::size_t node = 0; node < motor_rpm_.size(); ++node) {
    for (std::size_t motor = 0; motor < kMaxMotors; ++motor) {
      const std::optional<std::size_t>& number = drives_.nodes()[node].wheels[motor];
      if (number) {
        const Wheel& wheel = vehicle_.wheels[*number];
        // The classes take whole rpm.
        const double rpm = std::round(MotorRpmOf(wheel, speeds_[*number]));
        motor_rpm_[node][motor] = static_cast<int>(rpm);
        target_rpm_[*number] = WheelRpm(wheel, rpm);
      }
    }
  }
}

void Control::SendTargets() {
  for (std::size_t node = 0; node < drives_.nodes().size(); ++node) {
    // Somebody may have changed what PDOs the drive takes.
    const bool zeroed = CurrentState() == State::kFault && zero_since_;
    drives_.SetUnheeding(node, zeroed && !Stands(node));
  }
  drives_.Send(motor_rpm_);
  const bool zero =
      std::all_of(target_rpm_.begin(), target_rpm_.end(), [](double rpm) { return rpm == 0; });
  if (!zero || !drives_.Sent()) {
    zero_since_.reset();
  } else if (!zero_since_) {
    zero_since_ = Clock::now();
  }
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  for (std::size_t wheel = 0; wheel < target_rpm_.size(); ++wheel) {
    shared_.target_rpm[wheel] = target_rpm_[wheel] + 0.0;  // no negative zero
    // A simulated make has done what it was told.
    shared_.revolutions[wheel] +=
        target_rpm_[wheel] * std::chrono::duration<double, std::ratio<60>>(vehicle_.period).count();
  }
}

// Ends a stop, and the way down to standstill.
void Control::Settle() {
  const State state = CurrentState();
  if (stopping_) {
    const bool standing = Standing();
    if (!standing && Clock::now() < stop_deadline_) {
      return;
    }
    stopping_ = false;
    if (state != State::kFault) {
      if (standing) {
        SetState(State::kReady);
      } else {
        EnterFault({Fault::kStopNotConfirmed, 0,
                    "THE STOP IS NOT CONFIRMED: zero is sent, but a wheel may still turn; secure "
                    "the vehicle"});
      }
    }
    return Finish(standing);
  }
  if (state != State::kRunning) {
    return;
  }
  const std::size_t wheels = vehicle_.wheels.size();
  bool wanted = false;
  {
    const std::lock_guard<PriorityMutex> lock(shared_mutex_);
    const Speeds& command = shared_.command;
    wanted = shared_.has_command && !shared_.report.command_stale &&
             std::any_of(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(wheels),
                         [](double rpm) { return rpm != 0; });
  }
  if (!wanted && Standing()) {
    SetState(State::kReady);
  }
}

bool Control::Standing() const {
  if (!zero_since_) {
    return false;
  }
  for (std::size_t node = 0; node < drives_.nodes().size(); ++node) {
    if (!Stands(node)) {
      return false;
    }
  }
  return true;
}

bool Control::Stands(std::size_t node) const {
  for (std::size_t motor = 0; motor < kMaxMotors; ++motor) {
    if (drives_.nodes()[node].wheels[motor] && !drives_.make().simulated &&
        !drives_.watch().StandsSince(node, motor, *zero_since_)) {
      return false;
    }
  }
  return true;
}

}  // namespace motor_driver
