#include "wheels.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <mutex>
#include <set>

#include "log/output_relay.h"
#include "wheels/control.h"
#include "wheels/set_up_failure.h"
#include "wheels/vehicle_rules.h"

namespace motor_driver {
namespace {

constexpr auto kLastStop = std::chrono::seconds(3);

// Two hosts of one bus in one process would undo each other's filters and speeds.
class InterfaceClaim {
 public:
  explicit InterfaceClaim(std::string name) : name_(std::move(name)) {
    const std::lock_guard<std::mutex> lock(Mutex());
    if (!Names().insert(name_).second) {
      throw VehicleError("interface: " + name_ +
                         " is taken by another object of this process, one is allowed");
    }
  }
  ~InterfaceClaim() {
    const std::lock_guard<std::mutex> lock(Mutex());
    Names().erase(name_);
  }
  InterfaceClaim(const InterfaceClaim&) = delete;
  InterfaceClaim& operator=(const InterfaceClaim&) = delete;

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::set<std::string>& Names() {
    static std::set<std::string> names;
    return names;
  }

  std::string name_;
};

// Only what can be said at once: standard error may be a terminal that is held.
void SayAtOnce(const std::string& line) {
  pollfd error = {STDERR_FILENO, POLLOUT, 0};
  if (::poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
  }
}

}  // namespace

class Wheels::Impl {
 public:
  explicit Impl(const Vehicle& vehicle)
      : vehicle_(Checked(vehicle)), claim_(vehicle_.interface), control_(vehicle_) {}

  Control& control() { return control_; }
  std::mutex& calls() { return calls_; }

 private:
  const Vehicle vehicle_;
  const InterfaceClaim claim_;
  const OutputRelay relay_;
  std::mutex calls_;  // BringUp, Stop and Clear, one at a time
  Control control_;
};

Wheels::Wheels(const Vehicle& vehicle) : impl_(std::make_unique<Impl>(vehicle)) {}

Wheels::~Wheels() {
  if (Stop(kLastStop)) {
    impl_->control().Release();
  } else {
    SayAtOnce("THE STOP IS NOT CONFIRMED: A WHEEL MAY STILL TURN. SECURE THE VEHICLE. (" +
              GetReport().reason + ")\n");
  }
}

bool Wheels::BringUp(const std::function<void(const std::string&)>& progress,
                     const std::function<bool()>& cancelled) {
  const std::lock_guard<std::mutex> lock(impl_->calls());
  return impl_->control().BringUp(progress, cancelled);
}

bool Wheels::Command(const double* rpm, std::size_t count) {
  return impl_->control().Command(rpm, count);
}

Report Wheels::GetReport() const { return impl_->control().GetReport(); }

WheelReport Wheels::GetWheel(std::size_t wheel) const { return impl_->control().GetWheel(wheel); }

bool Wheels::Stop(std::chrono::milliseconds limit) {
  const std::lock_guard<std::mutex> lock(impl_->calls());
  return impl_->control().Stop(limit);
}

bool Wheels::Clear() {
  const std::lock_guard<std::mutex> lock(impl_->calls());
  return impl_->control().Clear();
}

std::vector<SetUpFailure> SetUpFailures(const Wheels& wheels) {
  return wheels.impl_->control().Failures();
}

}  // namespace motor_driver
