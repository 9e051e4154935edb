// A report for people.
#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "printable.h"
#include "report_output.h"

namespace motorctl {
namespace {

// A screen or two; --json has the rest.
constexpr std::size_t kMostLines = 40;
constexpr std::size_t kMostAnomalies = 25;
constexpr std::size_t kIndent = 14;
// Anomalies so close to each other were met by the same commands.
constexpr std::int64_t kTogether = 50'000'000;

std::string Count(std::size_t count, const char* what, const char* plural = nullptr) {
  std::string text = std::to_string(count) + " ";
  if (count == 1) return text + what;
  return text + (plural != nullptr ? plural : std::string(what) + "s");
}

std::string Rpm(double rpm) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", rpm);
  return text;
}

class TextReport {
 public:
  explicit TextReport(const ReportOf& of) : of_(of) {}

  std::string Text() {
    AddHead();
    AddFindings();
    AddWheels();
    AddNodes();
    AddBus();
    AddNotes();
    return text_;
  }

 private:
  void Line(const std::string& line) { text_ += line + "\n"; }

  bool HasTimes() const { return of_.log.clock != LogClock::kNone; }

  std::string When(std::int64_t nanoseconds, std::uint32_t line) const {
    return HasTimes() ? SecondsText(nanoseconds - of_.report.zero, true)
                      : "line " + std::to_string(line);
  }

  void AddHead() {
    const ReportLog& log = of_.log;
    Line(Visible(of_.source.path));
    std::string stretch = log.interface.empty() ? "" : log.interface + ", ";
    if (HasTimes()) {
      stretch += ShownTime(log, log.begin()) + ", " + SecondsText(log.end() - log.begin()) +
                 " s from there on, ";
    }
    const BusLoad& load = of_.report.load;
    Line(stretch + Count(load.frames() + load.error_frames(), "frame"));
    std::string make =
        of_.report.make == nullptr
            ? "make unknown: PDOs are not taken apart; name it with --make or --vehicle"
            : std::string("make ") + of_.report.make->name + " (" + of_.make_from + ")";
    if (of_.report.make != nullptr && of_.report.make->counts_are_configured) {
      make +=
          ", " + std::to_string(of_.setup.vehicle.counts_per_revolution) + " counts per revolution";
    }
    Line(make);
    if (!of_.source.trigger.empty()) Line("trigger: " + of_.source.trigger);
    if (HasTimes()) {
      Line(std::string("times in s from ") + ZeroText(of_.report) + ", " +
           ShownTime(log, of_.report.zero));
    }
  }

  // The anomalies from the first on, and what stands closest to the first of them.
  std::vector<const Finding*> Chosen() const {
    std::vector<const Finding*> chosen;
    std::vector<const Finding*> others;
    for (const Finding& finding : of_.report.findings) {
      const bool take = finding.anomaly && chosen.size() < kMostAnomalies;
      (take ? chosen : others).push_back(&finding);
    }
    const Finding* const first = of_.report.FirstAnomaly();
    const std::int64_t middle = first != nullptr ? first->nanoseconds : of_.log.begin();
    const auto distance = [middle](const Finding* finding) {
      return std::abs(finding->nanoseconds - middle);
    };
    std::stable_sort(others.begin(), others.end(), [&](const Finding* left, const Finding* right) {
      return distance(left) < distance(right);
    });
    others.resize(std::min(others.size(), kMostLines - chosen.size()));
    chosen.insert(chosen.end(), others.begin(), others.end());
    // As they stand in the report.
    std::stable_sort(chosen.begin(), chosen.end(), [](const Finding* left, const Finding* right) {
      return left->nanoseconds == right->nanoseconds ? left->line < right->line
                                                     : left->nanoseconds < right->nanoseconds;
    });
    return chosen;
  }

  void AddFindings() {
    const auto& findings = of_.report.findings;
    const auto anomalies = static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(), [](const Finding& each) { return each.anomaly; }));
    Line("");
    if (anomalies == 0) {
      Line("What happened: no anomaly");
    } else {
      const Finding& first = *of_.report.FirstAnomaly();
      Line("What happened: " + Count(anomalies, "anomaly", "anomalies") + " (!), the first at " +
           When(first.nanoseconds, first.line));
    }
    const std::vector<const Finding*> chosen = Chosen();
    for (const Finding* finding : chosen) AddFinding(*finding);
    const std::size_t left = findings.size() - chosen.size() + of_.report.unlisted;
    if (left > 0) Line("  " + std::to_string(left) + " more: --json, --html");
  }

  void AddFinding(const Finding& finding) {
    std::string line = "  " + When(finding.nanoseconds, finding.line);
    if (line.size() < kIndent - 3) line.insert(2, kIndent - 3 - line.size(), ' ');
    line += (finding.anomaly ? " ! " : "   ") + finding.Text();
    if (finding.count > 1) {
      line += " (" + std::to_string(finding.count) + " times, the last at " +
              When(finding.last, finding.line) + ")";
    }
    Line(line);
    if (finding.anomaly) AddCommands(finding);
  }

  bool IsFirst(const Finding& finding) const { return &finding == of_.report.FirstAnomaly(); }

  // All wheels where there are few, and for the first anomaly; otherwise those of the node.
  void AddCommands(const Finding& finding) {
    constexpr std::size_t kFew = 2;
    const std::vector<WheelReport>& wheels = of_.report.wheels;
    if (finding.kind == "commands_missing" && !IsFirst(finding)) return;
    const bool all = wheels.size() <= kFew || IsFirst(finding);
    const auto told = told_.find(finding.node);
    if (told != told_.end() && finding.nanoseconds - told->second <= kTogether) return;
    const char* title = "last command: ";
    for (std::size_t i = 0; i < finding.wheels.size(); ++i) {
      if (!all && wheels[i].wheel.node != finding.node) continue;
      if (!finding.wheels[i].commanded_rpm && !finding.wheels[i].measured_rpm) continue;
      told_[finding.node] = finding.nanoseconds;
      Line(std::string(kIndent, ' ') + title + MomentText(finding, i));
      title = "              ";
    }
  }

  std::string MomentText(const Finding& finding, std::size_t wheel) const {
    const WheelMoment& moment = finding.wheels[wheel];
    std::string text = of_.report.wheels[wheel].wheel.name + " ";
    if (!moment.commanded_rpm) {
      text += "none";
    } else {
      text += Rpm(*moment.commanded_rpm) + " rpm";
      if (HasTimes()) {
        text += " " + SecondsText(finding.nanoseconds - moment.commanded_at) + " s before";
      }
    }
    if (moment.measured_rpm) text += ", measured " + Rpm(*moment.measured_rpm) + " rpm";
    return text;
  }

  void AddWheels() {
    if (of_.report.wheels.empty()) return;
    Line("");
    Line("Wheels");
    for (const WheelReport& wheel : of_.report.wheels) {
      const std::string node = MotorOf(wheel.wheel);
      std::string line =
          "  " + wheel.wheel.name + (node == wheel.wheel.name ? "" : ", " + node) + ": ";
      if (wheel.commands == 0) {
        line += "no command";
      } else {
        line += Count(wheel.commands, "command") + ", at most " + Rpm(wheel.most_commanded_rpm) +
                " rpm, the last one " + Rpm(*wheel.last.commanded_rpm) + " rpm";
        if (HasTimes()) line += " at " + When(wheel.last.commanded_at, 0);
      }
      if (wheel.measurements > 0) {
        line += "; measured at most " + Rpm(wheel.most_measured_rpm) + " rpm, at last " +
                Rpm(*wheel.last.measured_rpm) + " rpm";
      }
      Line(line);
    }
  }

  std::string MotorOf(const motor_driver::Wheel& wheel) const {
    std::string text = "node " + std::to_string(wheel.node);
    const Make* const make = of_.report.make;
    if (make != nullptr && make->motors > 1) text += " motor " + std::to_string(wheel.motor);
    return text;
  }

  void AddNodes() {
    Line("");
    std::string absent;
    std::string lines;
    for (const auto& [id, node] : of_.report.nodes) {
      if (node.sends) {
        lines += "  " + NodeLine(id, node) + "\n";
      } else {
        absent += (absent.empty() ? "" : ", ") + std::to_string(id);
      }
    }
    Line(lines.empty() ? "Nodes: none was heard" : "Nodes, at the end");
    text_ += lines;
    if (!absent.empty()) Line("  asked, and never heard: " + absent);
  }

  std::string NodeLine(int id, const NodeReport& node) const {
    const std::string nmt = NmtStateAt(node, of_.log.end());
    std::string line = "node " + std::to_string(id) +
                       (node.is_this_machine ? ", this machine" : "") + ": " +
                       (nmt.empty() ? "no heartbeat" : nmt);
    const int motors = of_.report.make == nullptr ? 1 : static_cast<int>(of_.report.make->motors);
    for (int motor = 1; motor <= motors; ++motor) {
      const std::string state = DriveStateAt(node, motor, of_.log.end(), of_.report.make);
      if (!state.empty())
        line += "; " + (motors > 1 ? "motor " + std::to_string(motor) + " " : "") + state;
    }
    if (node.boot_ups > 0) line += "; " + Count(node.boot_ups, "boot-up");
    if (node.emergencies > 0) line += "; " + Count(node.emergencies, "emergency message");
    if (node.requests > 0) {
      line += "; SDO: " + Count(node.requests, "request");
      if (HasTimes()) line += ", slowest answer " + SecondsText(node.slowest_answer) + " s";
      if (node.late > 0) line += ", " + std::to_string(node.late) + " late";
      if (node.unanswered > 0) line += ", " + std::to_string(node.unanswered) + " without answer";
    }
    if (node.aborts > 0) line += "; " + Count(node.aborts, "abort");
    return line;
  }

  void AddBus() {
    const BusLoad& load = of_.report.load;
    Line("");
    Line("Bus");
    const double seconds = static_cast<double>(of_.log.end() - of_.log.begin()) / 1e9;
    if (seconds > 0) {
      char rate[32];
      std::snprintf(rate, sizeof(rate), "%.0f frames/s",
                    static_cast<double>(load.frames()) / seconds);
      Line(std::string("  ") + rate + "; load " + LoadText(of_) + "; stuff bits counted");
      if (of_.bit_rate == 0) Line("  the bit rate is not known: name it with --bit-rate");
    }
    Line("  " +
         (load.error_frames() == 0 ? "no error frame" : Count(load.error_frames(), "error frame")));
    if (load.fd_frames() > 0)
      Line("  " + Count(load.fd_frames(), "frame") + " of CAN FD, of which nothing is told");
  }

  void AddNotes() {
    std::vector<std::string> notes = of_.source.notes;
    notes.insert(notes.end(), of_.log.notes.begin(), of_.log.notes.end());
    if (notes.empty()) return;
    Line("");
    Line("About the log");
    for (const std::string& note : notes) Line("  " + note);
  }

  const ReportOf& of_;
  std::string text_;
  std::map<int, std::int64_t> told_;  // of a node, when its commands were told last
};

}  // namespace

std::string ReportText(const ReportOf& of) { return TextReport(of).Text(); }

}  // namespace motorctl
