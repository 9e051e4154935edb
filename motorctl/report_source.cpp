#include "report_source.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "printable.h"

namespace motorctl {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr std::size_t kMostText = std::size_t{4} << 20;
constexpr char kVehicle[] = "\nvehicle:\n";

// Of a file that may be anything.
std::string TextOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMostText, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return text;
}

// The number behind the first of these words.
std::optional<std::uint64_t> NumberBehind(const std::string& text, const std::string& words) {
  const std::size_t at = text.find(words);
  if (at == std::string::npos) return std::nullopt;
  return std::strtoull(text.c_str() + at + words.size(), nullptr, 10);
}

// The vehicle was read from a file, and can be read only from one.
void TakeVehicle(const std::string& text, ReportSource& source) {
  const int file = ::memfd_create("vehicle", MFD_CLOEXEC);
  const std::string name = "/proc/self/fd/" + std::to_string(file);
  const bool written =
      file >= 0 && ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  try {
    if (written) source.vehicle = motor_driver::LoadVehicle(name);
  } catch (const motor_driver::VehicleError& error) {
    std::string what = error.what();
    if (what.compare(0, name.size(), name) == 0) what.erase(0, name.size());
    source.notes.push_back("system.txt, vehicle" + Printable(what) +
                           "; name the right file with --vehicle");
  }
  if (file >= 0) ::close(file);
}

void TakeSystem(ReportSource& source) {
  const std::string text = TextOf(source.path + "/system.txt");
  if (text.empty()) {
    source.notes.emplace_back("no system.txt: vehicle and bit rate are not known from there");
    return;
  }
  const std::size_t vehicle = text.find(kVehicle);
  const std::string system = text.substr(0, vehicle);
  if (system.find("recorded without CAP_NET_RAW") != std::string::npos) {
    source.notes.emplace_back(
        "recorded without CAP_NET_RAW: what the host sent is missing, commands are not known; "
        "record as root or with the capability");
  }
  if (const auto lost = NumberBehind(system, "frames lost by the recorder since its start: ")) {
    if (*lost > 0) {
      source.notes.push_back("the recorder has lost " + std::to_string(*lost) +
                             " frames since its start: some that seem missing may have been there");
    }
  }
  if (const auto rate = NumberBehind(system, " bitrate ")) {
    source.bit_rate = static_cast<int>(std::min<std::uint64_t>(*rate, 1'000'000));
  }
  if (vehicle != std::string::npos)
    TakeVehicle(text.substr(vehicle + sizeof(kVehicle) - 1), source);
}

// What no frame shows.
void TakeEvent(const Json& event, ReportSource& source) {
  const std::string kind = event.at("event");
  const std::string text = Printable(event.at("text").get<std::string>());
  const auto time =
      static_cast<std::int64_t>(std::clamp(event.at("time").get<double>(), 0.0, 3e9) * 1e6) * 1000;
  if (event.at("trigger").get<bool>()) {
    source.trigger = text;
    if (kind != "request") source.trigger_at = time;
  }
  constexpr std::string_view kKept[] = {"interface_down", "interface_gone", "request"};
  const auto kept = std::find(std::begin(kKept), std::end(kKept), kind);
  if (kept == std::end(kKept)) return;
  Finding finding;
  finding.nanoseconds = time;
  finding.kind = *kept;
  finding.anomaly = kind != "request";
  finding.text = text;
  source.more.push_back(std::move(finding));
}

void TakeEvents(ReportSource& source) {
  std::istringstream lines(TextOf(source.path + "/events.jsonl"));
  std::size_t number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    try {
      TakeEvent(Json::parse(line), source);
    } catch (const Json::exception&) {
      source.notes.push_back("events.jsonl:" + std::to_string(number) +
                             ": no event, left out with all that follow");
      return;
    }
  }
  if (source.trigger.empty()) {
    source.notes.emplace_back("no trigger in events.jsonl: times count from the first anomaly");
  }
}

[[noreturn]] void RefuseFolder(const std::string& path) {
  std::vector<std::string> incidents;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, ignored)) {
    const std::string name = entry.path().filename();
    if (name.compare(0, 9, "incident-") == 0) incidents.push_back(entry.path());
  }
  if (incidents.empty()) {
    throw LogUnreadable(path + ": no bus.log in it; name a folder of motorctl record, or a log");
  }
  throw LogUnreadable(path + ": " + std::to_string(incidents.size()) +
                      (incidents.size() == 1 ? " incident" : " incidents") +
                      " in it; name one, the newest is " +
                      *std::max_element(incidents.begin(), incidents.end()));
}

}  // namespace

ReportSource FindReportSource(const std::string& path) {
  ReportSource source;
  source.path = path;
  while (source.path.size() > 1 && source.path.back() == '/') source.path.pop_back();
  source.log_path = path;
  std::error_code ignored;
  if (!fs::is_directory(path, ignored)) return source;
  source.log_path = source.path + "/bus.log";
  if (!fs::exists(source.log_path, ignored)) RefuseFolder(path);
  TakeSystem(source);
  TakeEvents(source);
  return source;
}

}  // namespace motorctl
