// Logs in words, for tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "decode.h"

namespace motorctl {

using motor_driver::FindMake;

struct Result {
  std::vector<std::string> lines;
  std::size_t malformed = 0;
};

inline Result DecodeText(const std::string& log, const std::string& make = {}, bool json = false) {
  const int file = ::memfd_create("log", MFD_CLOEXEC);
  EXPECT_EQ(::pwrite(file, log.data(), log.size(), 0), static_cast<ssize_t>(log.size()));
  Result result;
  std::string out;
  result.malformed =
      DecodeLog(file, {FindMake(make), json}, [&](const std::string& lines) { out += lines; });
  ::close(file);
  std::istringstream stream(out);
  for (std::string line; std::getline(stream, line);) result.lines.push_back(line);
  return result;
}

inline std::string ReadFile(const std::string& name) {
  std::ifstream file(std::string(DATA_DIRECTORY) + "/" + name);
  std::ostringstream text;
  text << file.rdbuf();
  EXPECT_FALSE(text.str().empty()) << name;
  return text.str();
}

// What the frames of a log mean, and how many of its other lines are of each kind.
struct Frames {
  std::vector<std::string> texts;
  std::map<std::string, int> others;
};

inline Frames FramesOf(const std::string& log) {
  Frames frames;
  for (const std::string& line : DecodeText(log, "zl", true).lines) {
    const auto object = nlohmann::json::parse(line);
    if (object.contains("frame")) {
      frames.texts.push_back(object.at("text"));
    } else {
      ++frames.others[object.at("kind")];
    }
  }
  return frames;
}

}  // namespace motorctl
