// Reports: any bytes for a log.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "candump/candump.h"
#include "input.h"
#include "report_output.h"

namespace {

using motorctl::Finding;
using Json = nlohmann::json;

bool IsShown(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\t' || c == '\n' || (c >= 0x20 && c < 0x7F); });
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::string FileOf(const std::string& log) {
  static const int file = ::memfd_create("log", MFD_CLOEXEC);
  fuzz::Require(::ftruncate(file, 0) == 0 &&
                    ::pwrite(file, log.data(), log.size(), 0) == static_cast<ssize_t>(log.size()),
                "a file to read");
  return "/proc/self/fd/" + std::to_string(file);
}

void CheckLog(const motorctl::ReportLog& log) {
  fuzz::Require(!log.frames.empty(), "something to report");
  fuzz::Require(std::is_sorted(log.frames.begin(), log.frames.end(),
                               [](const auto& left, const auto& right) {
                                 return left.nanoseconds < right.nanoseconds;
                               }),
                "times that do not run back");
  for (const std::string& note : log.notes) {
    fuzz::Require(IsShown(note) && note.find('\n') == std::string::npos, "a note is a line");
  }
}

// A finding that names a line is in it.
void CheckFindings(const motorctl::Report& report, const std::vector<std::string>& lines) {
  const auto earlier = [](const Finding& left, const Finding& right) {
    return left.nanoseconds < right.nanoseconds;
  };
  fuzz::Require(std::is_sorted(report.findings.begin(), report.findings.end(), earlier), "order");
  fuzz::Require(report.findings.size() <= 4000, "not too many");
  for (const Finding& finding : report.findings) {
    fuzz::Require(!finding.anomaly || finding.wheels.size() == report.wheels.size(),
                  "what each wheel was told");
    if (finding.kind != "emergency" || finding.line == 0) continue;
    fuzz::Require(finding.line <= lines.size(), "a line of the log");
    const std::string& line = lines[finding.line - 1];
    if (line.find('\x1B') != std::string::npos) continue;
    const auto hexadecimal = candump::ParseLogLine(line);
    const auto decimal = candump::ParseLogLine(line, 10);
    const auto id = static_cast<std::uint32_t>(0x080 + finding.node);
    fuzz::Require((hexadecimal && hexadecimal->id == id) || (decimal && decimal->id == id),
                  "the frame that it tells of");
  }
}

void CheckJson(const std::string& text, const motorctl::Report& report) {
  std::size_t findings = 0;
  for (const std::string& line : Split(text)) {
    const Json object = Json::parse(line, nullptr, false);
    fuzz::Require(object.is_object() && object.at("command") == "report", "JSON");
    if (object.at("event") == "finding") ++findings;
  }
  fuzz::Require(findings == report.findings.size(), "all findings");
}

void CheckPage(const std::string& page) {
  std::size_t scripts = 0;
  for (std::size_t at = 0; (at = page.find("<script", at)) != std::string::npos; ++at) ++scripts;
  fuzz::Require(scripts == 2, "data and the scripts of the page, no others");
  const std::string begin = "id=\"data\" nonce=\"0\">";
  const std::size_t at = page.find(begin) + begin.size();
  const Json data = Json::parse(page.substr(at, page.find("</script>", at) - at), nullptr, false);
  fuzz::Require(data.is_object(), "data");
  for (const Json& wheel : data.at("wheels")) {
    fuzz::Require(wheel.at("measured").size() % 2 == 0 && wheel.at("measured").size() < 20000,
                  "a curve of few points");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const auto& makes = motor_driver::Makes();
  const std::size_t make = bytes[0] % (makes.size() + 1);
  const std::string text(bytes + 1, bytes + size);
  motorctl::ReportSetup setup;
  if (make < makes.size() && !makes[make].simulated) setup.make = &makes[make];
  try {
    motorctl::ReportLog log = motorctl::ReadReportLog(FileOf(text), "");
    CheckLog(log);
    const motorctl::Report report = motorctl::MakeReport(log, setup);
    fuzz::Require(report.load.frames() + report.load.error_frames() == log.frames.size(),
                  "every frame is counted");
    CheckFindings(report, Split(text));
    motorctl::ReportSource source;
    source.path = "log";
    const motorctl::ReportOf of = {source, log, setup, report, "", 0, ""};
    fuzz::Require(IsShown(motorctl::ReportText(of)), "nothing that a terminal obeys");
    CheckJson(motorctl::ReportJson(of), report);
    CheckPage(motorctl::ReportPage(of, "0"));
    motorctl::WriteReportCsv(of, [](const std::string& rows) {
      fuzz::Require(IsShown(rows) && (rows.empty() || rows.back() == '\n'), "whole rows");
    });
  } catch (const motorctl::LogUnreadable& error) {
    const std::string what = error.what();
    fuzz::Require(IsShown(what) && what.find('\n') == std::string::npos, "one line");
  }
  return 0;
}
