#include "velocity_check.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

#include "sdo_words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPace = std::chrono::milliseconds(200);
// The speed follows its target with a delay, and is measured over the last 100 ms.
constexpr auto kSettlingTime = std::chrono::milliseconds(1000);
constexpr double kAllowedShare = 0.2;
constexpr double kAllowedRpm = 5;
// A stop waits for the read that is on its way.
constexpr auto kTimeout = std::chrono::milliseconds(100);

}  // namespace

VelocityCheck::VelocityCheck(const Vehicle& vehicle, const motor_driver::Wheels& wheels)
    : vehicle_(vehicle),
      make_(*motor_driver::FindMake(vehicle.make)),
      wheels_(wheels),
      thread_([this] { Run(); }) {}

VelocityCheck::~VelocityCheck() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

std::string VelocityCheck::Failure() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return failure_;
}

bool VelocityCheck::Ended(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, wait, [this] { return ended_; });
}

void VelocityCheck::Run() {
  if (make_.velocities.empty()) return;
  try {
    // A socket of its own: that of the wheels is not to be disturbed.
    SdoClient client(vehicle_.interface, kTimeout);
    CompareUntilTheEnd(client);
  } catch (const CommandFailed&) {
    // An interface that is gone is a matter of Wheels.
  }
}

void VelocityCheck::CompareUntilTheEnd(SdoClient& client) {
  struct Steady {
    double target = 0;
    Clock::time_point since = Clock::now();
  };
  std::vector<Steady> steady(vehicle_.wheels.size());
  while (!Ended(kPace)) {
    for (std::size_t wheel = 0; wheel < steady.size(); ++wheel) {
      const double target = wheels_.GetWheel(wheel).target_rpm;
      if (target != steady[wheel].target) steady[wheel] = {target, Clock::now()};
      if (target == 0 || Clock::now() - steady[wheel].since < kSettlingTime) continue;
      const std::string failure = Compare(client, wheel);
      if (failure.empty()) continue;
      const std::lock_guard<std::mutex> lock(mutex_);
      if (failure_.empty()) failure_ = failure;
    }
  }
}

// Without signs: whether a wheel turns the right way is judged by Wheels.
std::string VelocityCheck::Compare(SdoClient& client, std::size_t wheel) const {
  const motor_driver::Wheel& description = vehicle_.wheels[wheel];
  const motor_driver::Object& object =
      make_.velocities.at(static_cast<std::size_t>(description.motor - 1));
  const SdoAnswer answer = client.Ask(description.node, object.index, object.sub_index);
  if (!answer.ok() || answer.bytes.size() != 4) return "";
  const double units = motor_driver::UnitsPerRpm(make_, vehicle_.counts_per_revolution);
  const double told = std::abs(static_cast<std::int32_t>(answer.number()) / units);
  const double measured = std::abs(wheels_.GetWheel(wheel).measured_rpm) * description.gear_ratio;
  if (std::abs(told - measured) <= kAllowedShare * std::max(told, measured) + kAllowedRpm)
    return "";
  char text[160];
  std::snprintf(text, sizeof(text),
                "node %d measures %.1f rpm itself (%s), by its position reports it is %.1f rpm: "
                "the encoder resolution is wrong",
                description.node, told, NameObject(object.index, object.sub_index).c_str(),
                measured);
  return text;
}

}  // namespace motorctl
