// motorctl config against a simulated drive, with a file to keep it in.
#pragma once

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "motorctl_process.h"
#include "sim/simulated_drive.h"
#include "simulated.h"

inline std::string EdsOf(const std::string& make) { return EDS_DIRECTORY "/" + make + ".eds"; }

inline std::string ReadText(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// The text without the one line that differs by itself.
inline std::string WithoutTime(std::string text) {
  const std::size_t begin = text.find("\ntime: ");
  if (begin == std::string::npos) return text;
  return text.erase(begin, text.find('\n', begin + 1) - begin);
}

// What a host sends that changes node 1: NMT, PDOs and SDO requests but for reads.
inline std::vector<std::string> NotReads(const std::vector<std::string>& frames) {
  std::vector<std::string> others;
  for (const std::string& frame : frames) {
    const std::string id = frame.substr(0, 4);
    const std::string command = frame.substr(0, 6);
    const bool request = id == "601#";
    const bool pdo = id == "201#" || id == "301#" || id == "401#" || id == "501#";
    const bool read = command == "601#40" || command == "601#60" || command == "601#70";
    if (id == "000#" || pdo || (request && !read)) others.push_back(frame);
  }
  return others;
}

class ConfigBench : public bus::BusTest {
 protected:
  ConfigBench() { std::remove(file_.c_str()); }

  Result Save(const std::string& make = "zl") {
    return Motorctl({"config", "save", "1", "--eds", EdsOf(make), "--output", file_});
  }
  Result Restore(const Arguments& more = {}) {
    Arguments all = {"config", "restore", file_, "1", "--yes"};
    all.insert(all.end(), more.begin(), more.end());
    return Motorctl(all);
  }

  const std::string file_ = ::testing::TempDir() + "/config.yaml";
};
