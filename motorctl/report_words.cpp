// Words that all forms of a report share.
#include <algorithm>
#include <cstdio>

#include "report_output.h"

namespace motorctl {
namespace {

const StateChange* ChangeAt(const std::vector<StateChange>& changes, std::int64_t nanoseconds) {
  const auto after = std::upper_bound(
      changes.begin(), changes.end(), nanoseconds,
      [](std::int64_t time, const StateChange& change) { return time < change.nanoseconds; });
  return after == changes.begin() ? nullptr : &*(after - 1);
}

std::string Number(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

}  // namespace

std::string ShownTime(const ReportLog& log, std::int64_t nanoseconds) {
  const std::int64_t shown = log.Shown(nanoseconds);
  switch (log.clock) {
    case LogClock::kUtc:
      return DateText(shown) + " UTC";
    case LogClock::kLocal:
      return DateText(shown);
    case LogClock::kRelative:
      return SecondsText(shown) + " s";
    case LogClock::kNone:
      break;
  }
  return {};
}

const char* ZeroText(const Report& report) {
  switch (report.zero_is) {
    case Report::Zero::kTrigger:
      return "the trigger";
    case Report::Zero::kFirstAnomaly:
      return "the first anomaly";
    case Report::Zero::kBegin:
      break;
  }
  return "the beginning";
}

std::string NmtStateAt(const NodeReport& node, std::int64_t nanoseconds) {
  const StateChange* const change = ChangeAt(node.nmt, nanoseconds);
  return change == nullptr ? "" : NmtText(change->value);
}

std::string DriveStateAt(const NodeReport& node, int motor, std::int64_t nanoseconds,
                         const Make* make) {
  if (motor < 1 || motor > static_cast<int>(motor_driver::kMaxMotors)) return {};
  const StateChange* const change = ChangeAt(node.drive[motor - 1], nanoseconds);
  return change == nullptr ? "" : DriveStateText(change->value, make);
}

std::string LoadText(const ReportOf& of) {
  const BusLoad& load = of.report.load;
  const double mean = load.MeanBitsPerSecond();
  const double most = load.MostBitsPerSecond();
  const bool known = of.bit_rate > 0;
  const double unit = known ? of.bit_rate / 100.0 : 1000.0;
  const char* const format = known ? "%.1f %%" : "%.1f kbit/s";
  std::string text = Number(format, mean / unit) + " on average";
  if (most > 0) {
    text += ", " + Number(format, most / unit) + " in the busiest " +
            Number("%.1f s", static_cast<double>(load.slice()) / 1e9);
  }
  if (known) {
    text += ", of " + Number("%g kbit/s", of.bit_rate / 1000.0) + " (" + of.bit_rate_from + ")";
  }
  return text;
}

}  // namespace motorctl
