// A report for programs.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "log_time.h"
#include "report_output.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

class JsonReport {
 public:
  explicit JsonReport(const ReportOf& of) : of_(of) {}

  std::string Text() {
    AddLog();
    for (const Finding& finding : of_.report.findings) AddFinding(finding);
    for (const WheelReport& wheel : of_.report.wheels) AddWheel(wheel);
    for (const auto& [id, node] : of_.report.nodes) AddNode(id, node);
    AddBus();
    for (const std::string& note : of_.source.notes) AddNote(note);
    for (const std::string& note : of_.log.notes) AddNote(note);
    return text_;
  }

 private:
  bool HasTimes() const { return of_.log.clock != LogClock::kNone; }

  void Line(const char* event, const Json& fields) {
    Json line = {{"command", "report"}, {"event", event}};
    line.update(fields);
    text_ += line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }

  static double Rounded(std::int64_t nanoseconds) { return WholeMicroseconds(nanoseconds) / 1e6; }
  static double Milliseconds(std::int64_t nanoseconds) {
    return WholeMicroseconds(nanoseconds) / 1e3;
  }
  // From the zero of the report.
  Json Second(std::int64_t nanoseconds) const {
    return HasTimes() ? Json(Rounded(nanoseconds - of_.report.zero)) : Json(nullptr);
  }
  Json Shown(std::int64_t nanoseconds) const {
    return HasTimes() ? Json(Rounded(of_.log.Shown(nanoseconds))) : Json(nullptr);
  }
  static Json TextOrNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
  }
  static Json Rpm(const std::optional<double>& rpm) {
    return rpm ? Json(std::round(*rpm * 100) / 100) : Json(nullptr);
  }

  void AddLog() {
    const ReportLog& log = of_.log;
    const Report& report = of_.report;
    constexpr const char* kClocks[] = {nullptr, "relative", "utc", "local"};
    constexpr const char* kZeros[] = {"begin", "first_anomaly", "trigger"};
    const char* const clock = kClocks[static_cast<int>(log.clock)];
    const auto anomalies = std::count_if(report.findings.begin(), report.findings.end(),
                                         [](const Finding& each) { return each.anomaly; });
    Line("log", {{"path", of_.source.path},
                 {"interface", TextOrNull(log.interface)},
                 {"clock", clock == nullptr ? Json(nullptr) : Json(clock)},
                 {"begin", Shown(log.begin())},
                 {"end", Shown(log.end())},
                 {"frames", report.load.frames()},
                 {"make", report.make == nullptr ? Json(nullptr) : Json(report.make->name)},
                 {"make_from", TextOrNull(of_.make_from)},
                 {"trigger", TextOrNull(of_.source.trigger)},
                 {"zero", Shown(report.zero)},
                 {"zero_is", kZeros[static_cast<int>(report.zero_is)]},
                 {"anomalies", anomalies},
                 {"unlisted", report.unlisted}});
  }

  void AddFinding(const Finding& finding) {
    Json wheels = Json::array();
    for (std::size_t i = 0; i < finding.wheels.size(); ++i) {
      const WheelMoment& moment = finding.wheels[i];
      wheels.push_back(
          {{"wheel", of_.report.wheels[i].wheel.name},
           {"commanded_rpm", Rpm(moment.commanded_rpm)},
           {"commanded_second", moment.commanded_rpm ? Second(moment.commanded_at) : Json(nullptr)},
           {"measured_rpm", Rpm(moment.measured_rpm)}});
    }
    Line("finding",
         {{"second", Second(finding.nanoseconds)},
          {"time", Shown(finding.nanoseconds)},
          {"line", finding.line == 0 ? Json(nullptr) : Json(finding.line)},
          {"kind", finding.kind},
          {"anomaly", finding.anomaly},
          {"node", finding.node < 0 ? Json(nullptr) : Json(finding.node)},
          {"motor", finding.motor == 0 ? Json(nullptr) : Json(finding.motor)},
          {"text", finding.Text()},
          {"count", finding.count},
          {"last_second", Second(finding.last)},
          {"duration_ms", finding.duration ? Json(Milliseconds(*finding.duration)) : Json(nullptr)},
          {"details", finding.fields.Json()},
          {"wheels", wheels}});
  }

  void AddWheel(const WheelReport& wheel) {
    Line("wheel", {{"wheel", wheel.wheel.name},
                   {"node", wheel.wheel.node},
                   {"motor", wheel.wheel.motor},
                   {"commands", wheel.commands},
                   {"most_commanded_rpm",
                    wheel.commands > 0 ? Rpm(wheel.most_commanded_rpm) : Json(nullptr)},
                   {"last_commanded_rpm", Rpm(wheel.last.commanded_rpm)},
                   {"last_commanded_second",
                    wheel.commands > 0 ? Second(wheel.last.commanded_at) : Json(nullptr)},
                   {"most_measured_rpm",
                    wheel.measurements > 0 ? Rpm(wheel.most_measured_rpm) : Json(nullptr)},
                   {"last_measured_rpm", Rpm(wheel.last.measured_rpm)}});
  }

  void AddNode(int id, const NodeReport& node) {
    Json states = Json::array();
    const int motors = of_.report.make == nullptr ? 1 : static_cast<int>(of_.report.make->motors);
    for (int motor = 1; motor <= motors; ++motor) {
      states.push_back(TextOrNull(DriveStateAt(node, motor, of_.log.end(), of_.report.make)));
    }
    Line("node",
         {{"node", id},
          {"heard", node.sends},
          {"this_machine", node.is_this_machine},
          {"frames", node.frames},
          {"nmt_state", TextOrNull(NmtStateAt(node, of_.log.end()))},
          {"drive_states", states},
          {"boot_ups", node.boot_ups},
          {"emergencies", node.emergencies},
          {"sdo_requests", node.requests},
          {"sdo_slowest_ms", HasTimes() ? Json(Milliseconds(node.slowest_answer)) : Json(nullptr)},
          {"sdo_late", node.late},
          {"sdo_unanswered", node.unanswered},
          {"sdo_aborts", node.aborts}});
  }

  void AddBus() {
    const BusLoad& load = of_.report.load;
    const double rate = of_.bit_rate;
    const auto percent = [&](double bits) {
      return rate > 0 ? Json(std::round(bits / rate * 10000) / 100) : Json(nullptr);
    };
    Line("bus", {{"frames", load.frames()},
                 {"error_frames", load.error_frames()},
                 {"fd_frames", load.fd_frames()},
                 {"bits", load.bits()},
                 {"bit_rate", of_.bit_rate > 0 ? Json(of_.bit_rate) : Json(nullptr)},
                 {"bits_per_s", std::round(load.MeanBitsPerSecond())},
                 {"load_percent", percent(load.MeanBitsPerSecond())},
                 {"most_bits_per_s", std::round(load.MostBitsPerSecond())},
                 {"most_load_percent", percent(load.MostBitsPerSecond())},
                 {"slice_ms", Milliseconds(load.slice())}});
  }

  void AddNote(const std::string& note) { Line("note", {{"text", note}}); }

  const ReportOf& of_;
  std::string text_;
};

}  // namespace

std::string ReportJson(const ReportOf& of) { return JsonReport(of).Text(); }

}  // namespace motorctl
