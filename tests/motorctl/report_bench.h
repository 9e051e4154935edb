// Logs that are reported, for tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "report_output.h"

namespace motorctl {

using Lines = std::vector<std::string>;

// Removed with all that is in it.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/report_test.XXXXXX";
    EXPECT_NE(::mkdtemp(name), nullptr);
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::string& path() const { return path_; }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ + "/" + name, std::ios::binary) << text;
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};

inline std::string WholeFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline Lines Split(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

struct How {
  std::string make = {};
  motor_driver::Vehicle vehicle = {};
  int bit_rate = 0;
  std::string interface = {};
};

// Hands a report of the folder or log at `path` to `take`; it is called `name` in it.
inline void WithReport(const std::string& path, const How& how, const std::string& name,
                       const std::function<void(const ReportOf&)>& take) {
  ReportSource source = FindReportSource(path);
  ReportLog log = ReadReportLog(source.log_path, how.interface);
  source.path = name;
  ReportSetup setup;
  setup.vehicle = how.vehicle;
  setup.make = motor_driver::FindMake(how.make);
  setup.more = source.more;
  setup.trigger = source.trigger_at;
  const Report report = MakeReport(log, setup);
  take({source, log, setup, report, how.make.empty() ? "" : "--make", how.bit_rate, "--bit-rate"});
}

inline void WithReportOf(const std::string& log, const How& how,
                         const std::function<void(const ReportOf&)>& take) {
  const Folder folder;
  WithReport(folder.Write("bus.log", log), how, "bus.log", take);
}

inline std::string TextOf(const std::string& log, const How& how = {}) {
  std::string text;
  WithReportOf(log, how, [&](const ReportOf& of) { text = ReportText(of); });
  return text;
}

// Lines of the part that begins so, without its first one.
inline Lines PartOf(const std::string& text, const std::string& title) {
  Lines part;
  bool inside = false;
  for (const std::string& line : Split(text)) {
    if (inside && line.empty()) break;
    if (inside) part.push_back(line);
    inside = inside || line.compare(0, title.size(), title) == 0;
  }
  EXPECT_TRUE(inside) << title << " in " << text;
  return part;
}

inline Lines Happened(const std::string& log, const How& how = {}) {
  return PartOf(TextOf(log, how), "What happened");
}

// Frames one after the other: "0.100 701#05".
inline std::string LogOf(const Lines& frames) {
  std::string log;
  for (const std::string& frame : frames) {
    const std::size_t blank = frame.find(' ');
    log += "(" + frame.substr(0, blank) + ") can0" + frame.substr(blank) + "\n";
  }
  return log;
}

// The same frame again and again, from `begin` to before `end`, in milliseconds.
inline Lines Repeated(const std::string& frame, int begin, int end, int period) {
  Lines lines;
  for (int at = begin; at < end; at += period) {
    char text[64];
    std::snprintf(text, sizeof(text), "%d.%03d", at / 1000, at % 1000);
    lines.push_back(std::string(text) + " " + frame);
  }
  return lines;
}

// In the order of their times.
inline std::string Merged(const std::vector<Lines>& parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  std::stable_sort(all.begin(), all.end(), [](const std::string& left, const std::string& right) {
    return std::stod(left) < std::stod(right);
  });
  return LogOf(all);
}

inline std::vector<nlohmann::json> JsonOf(const std::string& log, const How& how = {}) {
  std::vector<nlohmann::json> objects;
  WithReportOf(log, how, [&](const ReportOf& of) {
    for (const std::string& line : Split(ReportJson(of))) {
      objects.push_back(nlohmann::json::parse(line));
    }
  });
  return objects;
}

inline std::vector<nlohmann::json> EventsOf(const std::vector<nlohmann::json>& objects,
                                            const std::string& event) {
  std::vector<nlohmann::json> found;
  for (const nlohmann::json& object : objects) {
    EXPECT_EQ(object.at("command"), "report");
    if (object.at("event") == event) found.push_back(object);
  }
  return found;
}

}  // namespace motorctl
