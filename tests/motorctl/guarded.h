// A command under motorctl guard, the drive that it turns, and the processes of both.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bus_of_guard.h"

// Processes whose parent is this one.
inline std::vector<pid_t> Children(pid_t parent) {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    int its_parent = 0;
    const std::size_t name_end = text.rfind(')');
    if (name_end != std::string::npos &&
        std::sscanf(text.c_str() + name_end + 1, " %*c %d", &its_parent) == 1 &&
        its_parent == parent) {
      children.push_back(std::atoi(entry.path().filename().c_str()));
    }
  }
  return children;
}

inline std::string CommandLine(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline");
  std::string text;
  std::getline(file, text);
  return text;
}

inline bool Lives(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(')');
  return name_end != std::string::npos && text[name_end + 2] != 'Z';
}

inline Arguments GuardLine(const Arguments& command, const Arguments& options = {}) {
  return With(With({"guard", "1", "--make", "zl"}, options), With({"--"}, command));
}

inline Arguments HostLine(const Arguments& steps, const Arguments& options = {}) {
  return GuardLine(With({GUARDED_HOST}, steps), options);
}

inline Arguments GuardedJog(const std::string& seconds, const Arguments& options = {}) {
  return GuardLine(With({MOTORCTL}, JogLine("zl", seconds)), options);
}

class GuardTest : public bus::BusTest {
 protected:
  void BringUp() { ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0); }

  bool Turns() {
    return Eventually([this] { return drive_.SpeedRpm() > 50; });
  }

  // Whoever may still be there has time to say otherwise.
  void ExpectStanding() {
    EXPECT_EQ(drive_.SpeedRpm(), 0.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(drive_.SpeedRpm(), 0.0);
  }

  // Frames that a host or a guard sent.
  static std::vector<std::string> Sent(bus::FarEnd& record) {
    std::vector<std::string> sent;
    for (const std::string& frame : record.Frames()) {
      if (!StartsWith(frame, "701#")) sent.push_back(frame);
    }
    return sent;
  }

  // The one child of the guard, once it is what it is to be.
  static pid_t Host(const Process& guard) {
    pid_t host = -1;
    EXPECT_TRUE(Eventually([&] {
      const std::vector<pid_t> children = Children(guard.pid());
      if (children.size() == 1) host = children.front();
      return host > 0 && CommandLine(host) != CommandLine(guard.pid());
    }));
    return host;
  }

  sim::SimulatedDrive drive_{DriveOptions("zl")};
};
