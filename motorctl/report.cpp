#include "report.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "identifiers.h"
#include "printable.h"
#include "report_watch.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kTpdo1 = 0x180;

// What was measured so long ago is not how fast a wheel turns.
constexpr std::int64_t kMeasuredNow = 300'000'000;

// Goes through a log once.
class Reader {
 public:
  Reader(Report& report, const Make* make)
      : report_(report),
        make_(make),
        findings_(report),
        streams_(report, make, findings_),
        nodes_(report, make, findings_, streams_),
        sdo_(report, make, findings_, nodes_, streams_) {}

  void Hear(KeptFrame& frame) {
    report_.load.Count(frame);
    streams_.Tick(frame.nanoseconds);
    sdo_.Tick(frame.nanoseconds);
    if (frame.kind == LoggedFrame::Kind::kError) {
      findings_.Add(FindingOf(frame,
                              TellsControllerState(frame.id) ? "controller_state" : "error_frame",
                              true, -1, DecodeErrorFrame(Logged(frame)).text));
    } else if (frame.kind == LoggedFrame::Kind::kData && !frame.extended) {
      HearData(frame);
    }
  }

  void Finish(const ReportLog& log, const std::vector<Finding>& more) {
    streams_.End(log.end());
    for (const Finding& finding : more) findings_.Add(finding);
    findings_.Finish();
  }

 private:
  void HearData(KeptFrame& frame) {
    const std::uint32_t base = frame.id & ~kNodeMask;
    const int node = static_cast<int>(frame.id & kNodeMask);
    if (frame.id == 0) return nodes_.HearNmt(frame);
    if (node == 0 && (make_ == nullptr || !make_->serves_node_zero)) return;
    if (base == kSdoRequest) return sdo_.Hear(node, false, frame);
    const bool pdo = base >= kTpdo1 && base < kSdoResponse;
    const bool to_node = pdo && (base & 0x80) == 0;
    if (!pdo && base != kEmergency && base != kSdoResponse && base != kHeartbeat) return;
    if (node == 0 && (base == kEmergency || base == kHeartbeat)) return;
    if (to_node) return streams_.Hear(frame.id, frame);
    NodeReport& report = report_.nodes[node];
    ++report.frames;
    report.sends = true;
    report.is_this_machine =
        report.is_this_machine ||
        (base == kHeartbeat && frame.direction == LoggedFrame::Direction::kSent);
    if (base == kSdoResponse) {
      sdo_.Hear(node, true, frame);
    } else if (base == kHeartbeat) {
      nodes_.HearHeartbeat(node, frame);
    } else if (base == kEmergency) {
      nodes_.HearEmergency(node, frame);
    } else {
      streams_.Hear(frame.id, frame);
      nodes_.HearPdo(node, base, frame);
    }
  }

  Report& report_;
  const Make* const make_;
  Findings findings_;
  Streams streams_;
  NodeWatch nodes_;
  SdoWatch sdo_;
};

// A target velocity that is written, or one in a PDO, or a position.
bool IsOfAWheel(const KeptFrame& frame, const Make& make) {
  const std::uint32_t base = frame.id & ~kNodeMask;
  if (make.target.bits != 0 && base == make.target.base_id) return true;
  if (make.position.bits != 0 && base == make.position.base_id) return true;
  if (base != kSdoRequest || frame.length != 8 || frame.data[0] >> 5U != 1) return false;
  return std::any_of(
      make.targets.begin(), make.targets.end(), [&](const motor_driver::Object& target) {
        return LittleEndian(frame.data + 1, 2) == target.index && frame.data[3] == target.sub_index;
      });
}

// As the vehicle has them, then others that were commanded or report a position.
void FindWheels(const ReportLog& log, const ReportSetup& setup, Report& report) {
  for (const motor_driver::Wheel& wheel : setup.vehicle.wheels) {
    report.wheels.emplace_back();
    report.wheels.back().wheel = wheel;
    report.wheels.back().wheel.name = Visible(wheel.name);
  }
  if (setup.make == nullptr) return;
  const auto motors = static_cast<int>(setup.make->motors);
  bool found[kNodeMask + 1] = {};
  for (const KeptFrame& frame : log.frames) {
    if (frame.extended || frame.kind != LoggedFrame::Kind::kData || frame.length == 0) continue;
    const std::uint32_t node = frame.id & kNodeMask;
    if (node == 0 && !setup.make->serves_node_zero) continue;
    found[node] = found[node] || IsOfAWheel(frame, *setup.make);
  }
  for (int node = 0; node <= static_cast<int>(kNodeMask); ++node) {
    for (int motor = 1; found[node] && motor <= motors; ++motor) {
      const bool known =
          std::any_of(report.wheels.begin(), report.wheels.end(), [&](const WheelReport& each) {
            return each.wheel.node == node && each.wheel.motor == motor;
          });
      if (known) continue;
      WheelReport wheel;
      wheel.wheel.name = MotorName(report, node, motor);
      wheel.wheel.node = node;
      wheel.wheel.motor = motor;
      report.wheels.push_back(wheel);
    }
  }
}

void SetZero(const ReportLog& log, const ReportSetup& setup, Report& report) {
  const Finding* const first = report.FirstAnomaly();
  report.zero = log.begin();
  if (setup.trigger) {
    report.zero = *setup.trigger;
    report.zero_is = Report::Zero::kTrigger;
  } else if (first != nullptr) {
    report.zero = first->nanoseconds;
    report.zero_is = Report::Zero::kFirstAnomaly;
  }
}

// What each wheel was told last, for every anomaly.
void FollowWheels(const ReportLog& log, const ReportSetup& setup, Report& report) {
  auto finding = report.findings.begin();
  std::vector<WheelMoment> moments(report.wheels.size());
  const auto fill = [&](std::int64_t until, std::uint32_t line) {
    for (; finding != report.findings.end(); ++finding) {
      const bool later =
          finding->nanoseconds == until ? finding->line > line : finding->nanoseconds > until;
      if (later) return;
      if (!finding->anomaly) continue;
      finding->wheels = moments;
      for (WheelMoment& moment : finding->wheels) {
        if (finding->nanoseconds - moment.measured_at > kMeasuredNow) moment.measured_rpm.reset();
      }
    }
  };
  std::vector<WheelReport> wheels = report.wheels;
  FollowSpeeds(log, setup, report, [&](const SpeedPoint& point, const WheelReport&) {
    fill(point.nanoseconds, point.line);
    WheelReport& wheel = wheels[point.wheel];
    WheelMoment& moment = moments[point.wheel];
    if (point.measured) {
      moment.measured_rpm = point.rpm;
      moment.measured_at = point.nanoseconds;
      ++wheel.measurements;
      wheel.most_measured_rpm = std::max(wheel.most_measured_rpm, std::abs(point.rpm));
    } else {
      moment.commanded_rpm = point.rpm;
      moment.commanded_at = point.nanoseconds;
      ++wheel.commands;
      wheel.most_commanded_rpm = std::max(wheel.most_commanded_rpm, std::abs(point.rpm));
    }
    wheel.last = moment;
  });
  constexpr auto kLast = std::numeric_limits<std::int64_t>::max();
  fill(kLast, 0);
  report.wheels = wheels;
}

}  // namespace

const Finding* Report::FirstAnomaly() const {
  const auto first = std::find_if(findings.begin(), findings.end(),
                                  [](const Finding& finding) { return finding.anomaly; });
  return first == findings.end() ? nullptr : &*first;
}

std::string NmtText(std::uint16_t value) {
  return value == kNoHeartbeat ? "no heartbeat" : NmtStateText(static_cast<std::uint8_t>(value));
}

const char* DriveStateText(std::uint16_t statusword, const Make* make) {
  if (make != nullptr && make->emergency_stop_mask != 0 &&
      (statusword & make->emergency_stop_mask) == make->emergency_stop) {
    return "Emergency stop";
  }
  const char* const state = FindState(statusword);
  return state != nullptr ? state : "no state of CiA 402";
}

std::string MotorName(const Report& report, int node, int motor) {
  for (const WheelReport& wheel : report.wheels) {
    if (wheel.wheel.node == node && wheel.wheel.motor == motor) return wheel.wheel.name;
  }
  std::string name = "node " + std::to_string(node);
  if (report.make != nullptr && report.make->motors > 1) name += " motor " + std::to_string(motor);
  return name;
}

Report MakeReport(ReportLog& log, const ReportSetup& setup) {
  Report report;
  report.make = setup.make;
  FindWheels(log, setup, report);
  report.load = BusLoad(log.begin(), log.end());
  Reader reader(report, setup.make);
  for (KeptFrame& frame : log.frames) reader.Hear(frame);
  reader.Finish(log, setup.more);
  SetZero(log, setup, report);
  FollowWheels(log, setup, report);
  return report;
}

}  // namespace motorctl
