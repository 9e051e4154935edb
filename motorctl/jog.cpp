#include "jog.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <system_error>
#include <thread>

#include "resolution.h"
#include "sdo_words.h"
#include "velocity_check.h"

namespace motorctl {
namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;

// After the bus failed: someone may be at the plug.
constexpr auto kRecoveryTime = std::chrono::seconds(10);

}  // namespace

Jog::Jog(const Context& context, const JogPlan& plan, EndSignals& signals, BackgroundOutput& output)
    : plan_(plan),
      signals_(signals),
      output_(output),
      view_(context, plan.vehicle.wheels.size(), output),
      command_(plan.vehicle.wheels.size()),
      wheels_(plan.vehicle) {}

double Jog::SecondsSinceStart() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

bool Jog::BringUp() {
  const bool up = wheels_.BringUp([this](const std::string& step) { output_.Say(step); },
                                  [this] { return signals_.Arrived(); });
  if (up) return true;
  for (const motor_driver::SetUpFailure& failed : motor_driver::SetUpFailures(wheels_)) {
    output_.Say(Describe(failed));
  }
  const Report report = wheels_.GetReport();
  Fail(report.reason);
  return report.state != State::kOff;
}

// Up as fast as Wheels lets it, down in time to stand at the end.
void Jog::Command(double second) {
  const double falling = plan_.ramp * std::max(0.0, plan_.seconds - second);
  for (std::size_t wheel = 0; wheel < command_.size(); ++wheel) {
    command_[wheel] = std::clamp(plan_.rpm[wheel], -falling, falling);
  }
  const bool taken = wheels_.Command(command_.data(), command_.size());
  const Report report = wheels_.GetReport();
  if (!taken || report.state == State::kFault) Fail(report.reason);
}

void Jog::Turn() {
  if (!failure_.empty()) return;
  VelocityCheck velocities(plan_.vehicle, wheels_);
  start_ = Clock::now();
  while (failure_.empty()) {
    const double second = SecondsSinceStart();
    if (second >= plan_.seconds) return;
    if (signals_.Arrived()) {
      return Fail(signals_.suspend() ? "interrupted: Ctrl-Z ends a jog, it is not suspended"
                                     : "interrupted");
    }
    if (output_.Failed()) return Fail("nobody reads the output any more");
    Command(second);
    std::this_thread::sleep_for(plan_.vehicle.period);
    Record();
    const std::string difference = velocities.Failure();
    if (!difference.empty()) Fail(difference);
  }
}

void Jog::Record() {
  Sample sample;
  sample.second = SecondsSinceStart();
  for (std::size_t wheel = 0; wheel < command_.size(); ++wheel) {
    const motor_driver::WheelReport report = wheels_.GetWheel(wheel);
    sample.target[wheel] = static_cast<float>(report.target_rpm);
    sample.measured[wheel] = static_cast<float>(report.measured_rpm);
    sample.reported[wheel] = std::chrono::duration<double>(report.measured_at - start_).count();
  }
  samples_.push_back(sample);
  view_.Show(sample);
}

// Records the way down; where no thread is to be had for that, it only stops.
bool Jog::StopOnce() {
  std::future<bool> stopped;
  try {
    stopped = std::async(std::launch::async, [this] { return wheels_.Stop(); });
  } catch (const std::system_error&) {
    return wheels_.Stop();
  }
  while (stopped.wait_for(plan_.vehicle.period) != std::future_status::ready) Record();
  return stopped.get();
}

// Leaves the drives enabled: at zero speed they hold the wheels; released, they would let a vehicle
// on a slope roll.
bool Jog::Stop() {
  const auto deadline = Clock::now() + kRecoveryTime;
  do {
    if (StopOnce()) {
      output_.Say(command_.size() == 1
                      ? "zero speed sent; the wheel was measured to stand still"
                      : "zero speed sent; " +
                            (command_.size() == 2 ? std::string("both")
                                                  : "all " + std::to_string(command_.size())) +
                            " wheels were measured to stand still");
      return true;
    }
    Fail(wheels_.GetReport().reason);
    output_.Say("*** THE STOP IS NOT CONFIRMED: " + NodeNames(plan_.vehicle) +
                " MAY STILL TURN. SECURE THE VEHICLE, SWITCH THE DRIVES OFF. ***");
  } while (wheels_.GetReport().fault == Fault::kBusFailed && Clock::now() < deadline);
  Fail("the stop is not confirmed");
  return false;
}

}  // namespace motorctl
