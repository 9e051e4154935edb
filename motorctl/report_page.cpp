// A report as one page: data, and the scripts that draw it.
#include "report_page.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "log_time.h"
#include "report_output.h"
#include "speed_curve.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostFindings = 400;
constexpr std::size_t kMostStates = 2000;  // of a lane

// Nothing in it can end the script that holds it.
std::string Embedded(const Json& data) {
  const std::string text = data.dump(-1, ' ', true, Json::error_handler_t::replace);
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '<':
        result += "\\u003C";
        break;
      case '>':
        result += "\\u003E";
        break;
      case '&':
        result += "\\u0026";
        break;
      default:
        result += c;
    }
  }
  return result;
}

class PageData {
 public:
  explicit PageData(const ReportOf& of) : of_(of) {}

  Json Data() {
    const ReportLog& log = of_.log;
    const bool dated = log.clock == LogClock::kUtc || log.clock == LogClock::kLocal;
    Json data = {{"path", of_.source.path},
                 {"interface", log.interface},
                 {"timed", log.clock != LogClock::kNone},
                 {"begin", Milliseconds(log.begin())},
                 {"end", Milliseconds(log.end())},
                 {"zero", dated ? Json(log.Shown(of_.report.zero) / 1'000'000) : Json(nullptr)},
                 {"zero_text", ZeroText(of_.report)},
                 {"utc", log.clock == LogClock::kUtc},
                 {"trigger", of_.source.trigger},
                 {"text", ReportText(of_)}};
    data["wheels"] = Wheels();
    data["nodes"] = Nodes();
    data["findings"] = FindingRows();
    data["load"] = Load();
    return data;
  }

 private:
  // From the zero of the report.
  double Milliseconds(std::int64_t nanoseconds) const {
    return WholeMicroseconds(nanoseconds - of_.report.zero) / 1e3;
  }

  // Differences are short: time in tenths of ms, value in tenths of rpm, of each point after the
  // one before, and of the first after the beginning of the log.
  Json Numbers(const std::vector<CurvePoint>& points) const {
    Json numbers = Json::array();
    std::int64_t time = 0;
    std::int64_t value = 0;
    for (const CurvePoint& point : points) {
      const std::int64_t next_time = (point.nanoseconds - of_.log.begin()) / 100'000;
      const std::int64_t next_value = std::llround(std::clamp(point.value, -1e9, 1e9) * 10);
      numbers.push_back(next_time - time);
      numbers.push_back(next_value - value);
      time = next_time;
      value = next_value;
    }
    return numbers;
  }

  Json Wheels() const {
    const ReportLog& log = of_.log;
    std::vector<SpeedCurve> curves;  // of each wheel commanded, then measured
    for (std::size_t i = 0; i < of_.report.wheels.size(); ++i) {
      curves.emplace_back(log.begin(), log.end(), of_.report.zero, true);
      curves.emplace_back(log.begin(), log.end(), of_.report.zero, false);
    }
    FollowSpeeds(log, of_.setup, of_.report, [&](const SpeedPoint& point, const WheelReport&) {
      // A mean stands in the middle of what it is the mean of.
      curves[2 * point.wheel + (point.measured ? 1 : 0)].Add(point.nanoseconds - point.mean_of / 2,
                                                             point.rpm);
    });
    Json wheels = Json::array();
    for (std::size_t i = 0; i < of_.report.wheels.size(); ++i) {
      const motor_driver::Wheel& wheel = of_.report.wheels[i].wheel;
      wheels.push_back({{"name", wheel.name},
                        {"node", wheel.node},
                        {"motor", wheel.motor},
                        {"commanded", Numbers(curves[2 * i].Finish())},
                        {"measured", Numbers(curves[2 * i + 1].Finish())}});
    }
    return wheels;
  }

  template <typename Text>
  Json Lane(const std::vector<StateChange>& changes, Text text) const {
    Json lane = Json::array();
    for (std::size_t i = 0; i < std::min(changes.size(), kMostStates); ++i) {
      lane.push_back({Milliseconds(changes[i].nanoseconds), text(changes[i].value)});
    }
    return lane;
  }

  Json Nodes() const {
    Json nodes = Json::array();
    for (const auto& [id, node] : of_.report.nodes) {
      if (!node.sends) continue;
      Json drives = Json::array();
      const std::size_t motors = of_.report.make == nullptr ? 1 : of_.report.make->motors;
      for (std::size_t motor = 0; motor < motors; ++motor) {
        const Json lane = Lane(node.drive[motor], [this](std::uint16_t value) {
          return DriveStateText(value, of_.report.make);
        });
        if (lane.empty()) continue;
        drives.push_back(
            {{"name", MotorName(of_.report, id, static_cast<int>(motor + 1))}, {"states", lane}});
      }
      nodes.push_back({{"node", id}, {"nmt", Lane(node.nmt, NmtText)}, {"drives", drives}});
    }
    return nodes;
  }

  // All anomalies that have room, then the rest.
  Json FindingRows() const {
    std::vector<const Finding*> rows;
    for (const bool anomalies : {true, false}) {
      for (const Finding& finding : of_.report.findings) {
        if (finding.anomaly == anomalies && rows.size() < kMostFindings) rows.push_back(&finding);
      }
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Finding* left, const Finding* right) {
      return left->nanoseconds < right->nanoseconds;
    });
    Json list = Json::array();
    for (const Finding* finding : rows) {
      list.push_back({{"t", Milliseconds(finding->nanoseconds)},
                      {"line", finding->line},
                      {"kind", finding->kind},
                      {"anomaly", finding->anomaly},
                      {"text", finding->Text()},
                      {"count", finding->count}});
    }
    return list;
  }

  Json Load() const {
    const BusLoad& load = of_.report.load;
    return {{"slice", static_cast<double>(load.slice()) / 1e6},
            {"bit_rate", of_.bit_rate},
            {"bits", load.bits_of_slices()}};
  }

  const ReportOf& of_;
};

}  // namespace

std::string ReportPage(const ReportOf& of, const std::string& nonce) {
  const std::string named = " nonce=\"" + nonce + "\"";
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src "
      "'nonce-" +
      nonce + "'; style-src 'nonce-" + nonce +
      "'\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<title>motorctl report</title>\n<style" +
      named + ">\n" + kPageStyle + "</style>\n</head>\n<body>\n" + kPageBody +
      "<script type=\"application/json\" id=\"data\"" + named + ">";
  page += Embedded(PageData(of).Data());
  page += "</script>\n<script" + named + ">\n" + kPageScripts + "</script>\n</body>\n</html>\n";
  return page;
}

}  // namespace motorctl
