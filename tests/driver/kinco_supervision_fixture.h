// What the tests of the Kinco drive's supervision share.
#pragma once

#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "output_capture.h"

using std::chrono::milliseconds;
using support::Eventually;
using support::WithoutNumbers;
using Frames = std::vector<std::string>;

inline constexpr auto kEnter = "[ERROR] EmergencyStop Enter\n";
inline constexpr auto kDone = "[INFO] EmergencyStop reset done\n";
inline constexpr auto kExited = "[INFO] EmergencyStop Exited\n";

inline std::string TimerLine(int ms) {
  return "[INFO] EmergencyStop reset after " + std::to_string(ms) + "ms\n";
}

inline Frames ResetOf(const std::string& request_id) {
  return {request_id + "#2B40600000000000", request_id + "#2B40600006000000",
          request_id + "#2B4060000F000000"};
}

inline void SetWait(KincoDriver& driver, int ms) {
  ASSERT_TRUE(
      driver.LoadConfig(TextFile("emergency_reset_wait: " + std::to_string(ms) + "\n").path()));
}

// A drive whose resets are noted, and fail on demand. Nothing reaches the bus.
class NotedDriver : public KincoDriver {
 public:
  NotedDriver() : KincoDriver("can0", 10000) {
    for (const std::uint32_t id : {0x701U, 0x702U, 0x703U}) {
      AddHeartbeatId(id);
    }
  }
  bool ResetDriverStatus(std::uint8_t node, DriverStatus status) override {
    EXPECT_EQ(status, DriverStatus::EmergencyStop);
    resets.insert(node);
    return refusing.count(node) == 0;
  }
  std::multiset<int> resets;
  std::set<int> refusing;
};

inline const std::string kNode1 = "481#";
inline const std::string kNode2 = "482#";
inline const std::string kNode3 = "483#";

class KincoSupervisionTest : public bus::BusTest {
 protected:
  KincoSupervisionTest() { StartSupervisionAnew(); }

  // What one pass logs after these status PDOs.
  static std::string Pass(KincoDriver& driver, const Frames& frames = {}) {
    for (const std::string& frame : frames) {
      Parse(driver, frame);
    }
    support::OutputCapture capture;
    driver.CheckEmergencyStop();
    capture.Stop();
    return WithoutNumbers(capture.Out());
  }

  // Passes every few milliseconds until one says something.
  static std::string NextWords(KincoDriver& driver) {
    std::string words;
    Eventually([&] {
      words = Pass(driver);
      return !words.empty();
    });
    return words;
  }
};

// Every filter that is more than one identifier or all of them, as "identifier/mask".
inline std::multiset<std::string> FiltersInTheKernel() {
  std::multiset<std::string> filters;
  std::ifstream list("/proc/net/can/rcvlist_fil");
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string device;
    std::string can_id;
    std::string mask;
    if (words >> device >> can_id >> mask && device == "can0") {
      filters.insert(can_id + "/" + mask);
    }
  }
  return filters;
}

class KincoLoopTest : public KincoSupervisionTest {
 protected:
  KincoLoopTest() {
    driver_->AddHeartbeatId(0x701);
    driver_->AddHeartbeatId(0x702);
  }

  // Starts the loop and waits until it has said so.
  void StartLoop() {
    support::OutputCapture capture;
    driver_->StartErrorParsingLoop();
    EXPECT_TRUE(
        Eventually([&] { return capture.Out().find("loop started") != std::string::npos; }));
  }

  bool Shows(std::uint8_t node, DriverStatus status) {
    return Eventually([&] { return driver_->GetDriverStatus(node) == status; });
  }

  std::unique_ptr<KincoDriver> driver_ = std::make_unique<KincoDriver>("can0", 10000);
};

// What `capture` holds once the text is in it.
inline std::string WaitForText(support::OutputCapture& capture, const std::string& text) {
  Eventually([&] { return capture.Out().find(text) != std::string::npos; });
  return WithoutNumbers(capture.Out());
}

template <typename Operation>
milliseconds FastestOf5(Operation operation) {
  auto fastest = milliseconds::max();
  for (int i = 0; i < 5; ++i) {
    fastest = std::min(fastest, operation());
  }
  return fastest;
}

template <typename Operation>
milliseconds Duration(Operation operation) {
  const auto begin = bus::Clock::now();
  operation();
  return std::chrono::duration_cast<milliseconds>(bus::Clock::now() - begin);
}
