// Speeds and states as a table.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "log_time.h"
#include "report_output.h"

namespace motorctl {
namespace {

constexpr std::size_t kBlock = std::size_t{1} << 16;

bool IsNumber(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return *end == '\0' && std::isfinite(value);
}

// Whoever opens the table must not have a formula worked out that a name holds.
std::string Cell(std::string text) {
  if (text.find_first_of("=+-@") == 0 && !IsNumber(text)) text.insert(0, 1, '\'');
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted.append(c == '"' ? 2 : 1, c);
  return quoted + "\"";
}

std::string Seconds(std::int64_t nanoseconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.6f", WholeMicroseconds(nanoseconds) / 1e6);
  return text;
}

std::string Rpm(const std::optional<double>& rpm) {
  if (!rpm) return {};
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", *rpm);
  return text;
}

}  // namespace

void WriteReportCsv(const ReportOf& of, const std::function<void(const std::string&)>& write) {
  const bool dated = of.log.clock == LogClock::kUtc || of.log.clock == LogClock::kLocal;
  std::string rows =
      "second,time,wheel,node,motor,commanded_rpm,measured_rpm,nmt_state,drive_state\n";
  const NodeReport unknown;
  std::vector<WheelMoment> moments(of.report.wheels.size());
  FollowSpeeds(of.log, of.setup, of.report, [&](const SpeedPoint& point, const WheelReport& each) {
    const motor_driver::Wheel& wheel = each.wheel;
    WheelMoment& moment = moments[point.wheel];
    (point.measured ? moment.measured_rpm : moment.commanded_rpm) = point.rpm;
    const auto node = of.report.nodes.find(wheel.node);
    const NodeReport& states = node == of.report.nodes.end() ? unknown : node->second;
    rows += Seconds(point.nanoseconds - of.report.zero) + "," +
            (dated ? Seconds(of.log.Shown(point.nanoseconds)) : "") + "," + Cell(wheel.name) + "," +
            std::to_string(wheel.node) + "," + std::to_string(wheel.motor) + "," +
            Rpm(moment.commanded_rpm) + "," + Rpm(moment.measured_rpm) + "," +
            NmtStateAt(states, point.nanoseconds) + "," +
            DriveStateAt(states, wheel.motor, point.nanoseconds, of.report.make) + "\n";
    if (rows.size() < kBlock) return;
    write(rows);
    rows.clear();
  });
  write(rows);
}

}  // namespace motorctl
