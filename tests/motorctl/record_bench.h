// A recorder as a user meets it, on can0, and what it has written.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "motorctl_process.h"
#include "simulated.h"

// A disk of its own, as small as wanted.
class Mount {
 public:
  Mount(const std::string& path, const std::string& size) : path_(path) {
    bus::Command("mkdir -p " + path + " && mount -t tmpfs -o size=" + size + " none " + path);
  }
  ~Mount() { bus::Command("umount " + path_); }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  const std::string path_;
};

class RecordTest : public bus::BusTest {
 protected:
  ~RecordTest() override { std::filesystem::remove_all(directory_); }

  // What follows a trigger is short here.
  Arguments Recording(const Arguments& more = {}, const std::string& after = "0.3") const {
    Arguments words = {"record", "--directory", directory_, "--after", after};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  static void AwaitStart(Process& recorder) {
    ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "motorctl: "); }));
    ASSERT_TRUE(Contains(recorder.Err(), "recording can0")) << recorder.Err();
  }

  // Complete ones, the oldest first; whatever else lies there is not listed.
  std::vector<std::string> Folders() const { return Listed("incident-"); }
  std::vector<std::string> Listed(const std::string& beginning) const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(directory_, ignored)) {
      const std::string name = entry.path().filename();
      if (name.compare(0, beginning.size(), beginning) == 0) names.push_back(entry.path());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  bool AwaitFolders(std::size_t count) const {
    return Eventually([&] { return Folders().size() >= count; });
  }

  static std::string Text(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  static std::vector<Json> Events(const std::string& folder) {
    std::istringstream lines(Text(folder + "/events.jsonl"));
    std::vector<Json> events;
    for (std::string line; std::getline(lines, line);) events.push_back(Json::parse(line));
    return events;
  }

  // Of the event that began it; there is one.
  static Json Trigger(const std::string& folder) {
    Json found;
    for (const Json& event : Events(folder)) {
      if (!event["trigger"].get<bool>()) continue;
      EXPECT_TRUE(found.is_null()) << folder;
      found = event;
    }
    return found;
  }

  // Nobody else's: kernels side by side share the files, and count their processes alike.
  const std::string directory_ = [] {
    char name[] = "/tmp/record_test.XXXXXX";
    EXPECT_NE(::mkdtemp(name), nullptr);
    return std::string(name);
  }();
};
