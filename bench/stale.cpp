// A host that stops to command: when the wheels fall, when zero is sent, when they stand.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bare.h"
#include "loops.h"
#include "measures.h"
#include "sim/simulated_drive.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::uint32_t kCommandOfNode1 = 0x201;
constexpr auto kSteady = milliseconds(100);
constexpr auto kPatience = std::chrono::seconds(5);
constexpr auto kLooksEvery = microseconds(200);
// The host's timer and the frame's way, which are not part of the promise.
constexpr double kOnTheWayUs = 1'000;

double Us(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

// What node 1 is told: since Begin(), when first less than before, and when first zero.
class Listener {
 public:
  explicit Listener(const std::string& interface) : can_(interface, false) {
    can_.HearOnly(kCommandOfNode1);
    can_.GiveUpAfterOneSecond();
    thread_ = std::thread([this] { Run(); });
  }
  ~Listener() {
    running_ = false;
    thread_.join();
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  struct Heard {
    std::optional<Clock::time_point> falling;
    std::optional<Clock::time_point> zero;
  };
  void Begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    heard_ = {};
  }
  Heard heard() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }

 private:
  void Run() {
    std::int32_t before = 0;
    while (running_) {
      can_frame frame = {};
      if (!can_.Receive(frame)) {
        continue;
      }
      const auto now = Clock::now();
      std::int32_t speed = 0;
      std::memcpy(&speed, frame.data, sizeof(speed));
      const std::lock_guard<std::mutex> lock(mutex_);
      if (speed < before && !heard_.falling) {
        heard_.falling = now;
      }
      if (speed == 0 && !heard_.zero) {
        heard_.zero = now;
      }
      before = speed;
    }
  }

  RawCan can_;
  std::mutex mutex_;  // heard_
  Heard heard_;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

void CommandUntil(motor_driver::Wheels& wheels, Clock::time_point end) {
  const double rpm = kControlRpm;
  for (;;) {
    if (!wheels.Command(&rpm, 1)) {
      throw std::runtime_error("command refused: " + wheels.GetReport().reason);
    }
    if (Clock::now() >= end) {
      return;
    }
    std::this_thread::sleep_for(std::min<Clock::duration>(kControlPeriod, end - Clock::now()));
  }
}

void AwaitSpeed(sim::SimulatedDrive& drive, double rpm) {
  const auto start = Clock::now();
  while (std::abs(drive.SpeedRpm() - rpm) > 1e-6) {
    if (Clock::now() > start + kPatience) {
      throw std::runtime_error(fmt::format("the drive never turns at {} rpm", rpm));
    }
    std::this_thread::sleep_for(kLooksEvery);
  }
}

}  // namespace

std::vector<Row> MeasureStaleCommand(const Bench& bench) {
  sim::SimulatedDrive::Options options;
  options.interface = bench.far_interface;
  options.make = "tt";
  sim::SimulatedDrive drive(options);
  motor_driver::Vehicle vehicle = VehicleOf("tt", 1, bench.interface);
  vehicle.max_acceleration = 6'000;
  WheelsLoop loop(vehicle);
  Listener listener(bench.far_interface);

  Figure falling;
  Figure zero;
  Figure standing;
  for (std::uint32_t lapse = 0; lapse < bench.scale.lapses; ++lapse) {
    // Until another moment of the control cycle each time.
    CommandUntil(loop.wheels(), Clock::now() + kSteady + microseconds(lapse * 377 % 10'000));
    const auto last = Clock::now();
    CommandUntil(loop.wheels(), last);
    AwaitSpeed(drive, kControlRpm);
    listener.Begin();
    AwaitSpeed(drive, 0);
    const auto stood = Clock::now();
    const Listener::Heard heard = listener.heard();
    if (!heard.falling || !heard.zero) {
      throw std::runtime_error("the drive stands, and nothing told it to");
    }
    falling.Add(Us(*heard.falling - last));
    zero.Add(Us(*heard.zero - last));
    standing.Add(Us(stood - last));
  }

  const double begins = Us(vehicle.command_timeout + vehicle.period);
  const double ends = begins + kControlRpm / vehicle.max_deceleration * 1e6;
  std::vector<Row> rows;
  const auto add = [&](const char* what, const Figure& figure, double promised) {
    rows.push_back({fmt::format("last command to {}, median", what), "us", figure.At(0.5), {}});
    rows.push_back({fmt::format("last command to {}, worst of {}", what, bench.scale.lapses),
                    "us",
                    figure.At(1),
                    {},
                    Target::kValueAtMost,
                    promised + kOnTheWayUs});
  };
  add("falling target", falling, begins);
  add("zero target", zero, ends);
  add("standstill", standing, ends);
  return rows;
}
