// What the tests of the Kinco drive's configuration share.
#pragma once

#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <ostream>
#include <string>

#include "bus_environment.h"
#include "kinco_fixture.h"
#include "output_capture.h"

using support::WithoutNumbers;

inline bool operator==(const ErrorCodeInfo& a, const ErrorCodeInfo& b) {
  return a.code == b.code && a.msg == b.msg;
}

inline void PrintTo(const ErrorCodeInfo& info, std::ostream* out) {
  *out << info.code << " \"" << info.msg << '"';
}

inline const ErrorCodeInfo kUnknownError = {0, "unknown"};

inline constexpr auto kWholeFile = R"(
err_code:
  - {code: 0x7380, err_code: 12, msg: "Encoder: no signal"}
  - {code: 2310, err_code: 7, msg: Over current}
driver_status:
  - {code: 0x37, msg: Operation enabled}
  - {code: 50, msg: Emergency stop}
  - {code: 0x18, msg: Fault}
motor_status:
  - {code: 0x04, msg: Target reached}
emergency_reset_wait: 1500
other: {is: ignored}
)";

// A file that loads: what LoadDriverConfig says around the lines of its sections.
inline std::string SuccessOf(const std::string& path, const std::string& sections) {
  return "[INFO] LoadDriverConfig from " + path + "\n" + sections +
         "[INFO] Error code config loaded successfully\n";
}

inline std::string FailureOf(const std::string& path, const std::string& error,
                             const std::string& sections = "") {
  return "[INFO] LoadDriverConfig from " + path + "\n" + sections +
         "[ERROR] Failed to load YAML file: " + path + ", error: " + error + "\n";
}

class KincoConfigTest : public bus::BusTest {
 protected:
  struct Loaded {
    bool result;
    std::string path;
    std::string out;
  };

  // Whether and how a file with this text is loaded by LoadDriverConfig.
  Loaded Load(const std::string& text) {
    const TextFile file(text);
    return LoadPath(file.path());
  }

  Loaded LoadPath(const std::string& path) {
    support::OutputCapture capture;
    const bool result = driver_.LoadDriverConfig(path);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    return {result, path, WithoutNumbers(capture.Out())};
  }

  void ExpectLoads(const std::string& text, const std::string& sections) {
    SCOPED_TRACE(text);
    const Loaded loaded = Load(text);
    EXPECT_TRUE(loaded.result);
    EXPECT_EQ(loaded.out, SuccessOf(loaded.path, sections));
  }

  void ExpectFails(const std::string& text, const std::string& error,
                   const std::string& sections = "") {
    SCOPED_TRACE(text);
    const Loaded loaded = Load(text);
    EXPECT_FALSE(loaded.result);
    EXPECT_EQ(loaded.out, FailureOf(loaded.path, error, sections));
  }

  template <typename Exception>
  void ExpectThrows(const std::string& text, const std::string& sections = "") {
    SCOPED_TRACE(text);
    const TextFile file(text);
    support::OutputCapture capture;
    std::string what;
    try {
      driver_.LoadDriverConfig(file.path());
    } catch (const Exception& exception) {
      what = exception.what();
    }
    capture.Stop();
    EXPECT_EQ(what, "stoul");
    EXPECT_EQ(WithoutNumbers(capture.Out()),
              "[INFO] LoadDriverConfig from " + file.path() + "\n" + sections);
  }

  // The emergency reset wait, as the supervision tells it.
  std::string Wait() {
    StartSupervisionAnew();
    driver_.AddHeartbeatId(0x701);
    Parse(driver_, std::string("481#") + kReleasedStatus);
    support::OutputCapture capture;
    driver_.CheckEmergencyStop();
    capture.Stop();
    return WithoutNumbers(capture.Out());
  }

  static std::string WaitOf(int ms) {
    return "[ERROR] EmergencyStop Enter\n[INFO] EmergencyStop reset after " + std::to_string(ms) +
           "ms\n";
  }

  KincoDriver driver_{"can0", 10000};
};
