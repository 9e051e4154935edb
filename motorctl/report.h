// What happened on a bus, found in a log of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bus_load.h"
#include "fields.h"
#include "report_log.h"
#include "vehicle.h"
#include "words.h"

namespace motorctl {

// What one wheel was told and did, at some moment.
struct WheelMoment {
  std::optional<double> commanded_rpm;  // the last that was sent
  std::int64_t commanded_at = 0;
  std::optional<double> measured_rpm;
  std::int64_t measured_at = 0;
};

struct Finding {
  std::int64_t nanoseconds = 0;
  std::uint32_t line = 0;                // of the log; 0: none shows it
  std::string_view kind;                 // names of --json; they stay
  bool anomaly = false;                  // otherwise it is what a host or a drive does in order
  int node = -1;                         // -1: none
  int motor = 0;                         // from 1; 0: none
  std::string text;                      // findings of the same text are one while they repeat
  std::string detail;                    // goes behind it
  std::optional<std::int64_t> duration;  // nanoseconds
  Fields fields;                         // what the kind has besides
  std::size_t count = 1;
  std::int64_t last = 0;            // of those that are one
  std::vector<WheelMoment> wheels;  // of an anomaly, just before it; as Report::wheels

  std::string Text() const { return text + detail; }
};

// What a drive or a node shows from a moment on.
struct StateChange {
  std::int64_t nanoseconds = 0;
  std::uint16_t value = 0;  // state of a heartbeat, kNoHeartbeat, or statusword
};

constexpr std::uint16_t kNoHeartbeat = 0x100;

struct NodeReport {
  bool sends = false;            // is heard; otherwise it was only asked
  bool is_this_machine = false;  // it sends from where the log was written
  std::size_t frames = 0;        // from it
  std::vector<StateChange> nmt;
  std::vector<StateChange> drive[motor_driver::kMaxMotors];
  std::size_t boot_ups = 0;
  std::size_t emergencies = 0;
  std::size_t requests = 0;  // SDO
  std::size_t aborts = 0;
  std::size_t late = 0;
  std::size_t unanswered = 0;
  std::int64_t slowest_answer = 0;  // nanoseconds
};

struct WheelReport {
  motor_driver::Wheel wheel;  // with a name of its own where no vehicle has one
  std::size_t commands = 0;
  std::size_t measurements = 0;
  double most_commanded_rpm = 0;  // without sign
  double most_measured_rpm = 0;
  WheelMoment last;
};

struct Report {
  enum class Zero { kBegin, kFirstAnomaly, kTrigger };

  const Make* make = nullptr;
  std::deque<Finding> findings;  // in order
  std::size_t unlisted = 0;      // findings beyond the most that are kept
  std::map<int, NodeReport> nodes;
  std::vector<WheelReport> wheels;
  BusLoad load;
  std::int64_t zero = 0;  // where times are counted from
  Zero zero_is = Zero::kBegin;

  const Finding* FirstAnomaly() const;
};

// What the log does not tell.
struct ReportSetup {
  const Make* make = nullptr;     // nullptr: PDOs are not taken apart
  motor_driver::Vehicle vehicle;  // wheels, and counts where the make does not know them
  // Found elsewhere, as an interface that went down.
  std::vector<Finding> more;
  std::optional<std::int64_t> trigger;
};

// Marks the segments of block transfers in the log.
Report MakeReport(ReportLog& log, const ReportSetup& setup);

// One point of a wheel's speed.
struct SpeedPoint {
  std::size_t wheel = 0;
  std::int64_t nanoseconds = 0;
  std::uint32_t line = 0;
  bool measured = false;  // otherwise commanded
  double rpm = 0;
  std::int64_t mean_of = 0;  // a measured speed is the mean of so long before
};

// Every point, in order.
void FollowSpeeds(const ReportLog& log, const ReportSetup& setup, const Report& report,
                  const std::function<void(const SpeedPoint&, const WheelReport&)>& take);

std::string NmtText(std::uint16_t value);
// State of CiA 402, or that of an emergency stop where the make shows one.
const char* DriveStateText(std::uint16_t statusword, const Make* make);

// "left", "node 1 motor 2".
std::string MotorName(const Report& report, int node, int motor);

}  // namespace motorctl
