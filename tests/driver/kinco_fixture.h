// What the tests of the Kinco drive share.
#pragma once

#include <gtest/gtest.h>
#include <kinco_driver.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "far_end.h"

// A file with this text, for as long as the object lives.
class TextFile {
 public:
  explicit TextFile(const std::string& text) {
    char name[] = "/tmp/kinco-test-XXXXXX";
    const int descriptor = ::mkstemp(name);
    EXPECT_GE(descriptor, 0);
    ::close(descriptor);
    path_ = name;
    std::ofstream(path_) << text;
  }
  ~TextFile() { ::unlink(path_.c_str()); }
  TextFile(const TextFile&) = delete;
  TextFile& operator=(const TextFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Hands a frame, written as candump text, to the parser that the loop would choose.
inline void Parse(KincoDriver& driver, const std::string& text) {
  const can_frame frame = bus::ParseFrame(text);
  if ((frame.can_id & 0x780U) == 0x700) {
    driver.ParseHeartBeatFrame(frame.can_id, frame.data, frame.can_dlc);
  } else {
    driver.ParseTpdo3Frame(frame.can_id, frame.data, frame.can_dlc);
  }
}

// Status PDOs, to follow "481#" and its like.
constexpr auto kReadyStatus = "000037000000";
constexpr auto kPressedStatus = "000050000100";
constexpr auto kReleasedStatus = "000050000000";

// The supervision's state is the whole process's: this leads it back to where a process starts, no
// emergency and no timer started. No frame is sent.
inline void StartSupervisionAnew() {
  class Resetting : public KincoDriver {
   public:
    using KincoDriver::KincoDriver;
    bool ResetDriverStatus(std::uint8_t, DriverStatus) override {
      reset = true;
      return true;
    }
    bool reset = false;
  };
  Resetting driver("can0", 10000);
  driver.LoadConfig(TextFile("emergency_reset_wait: 0").path());
  driver.AddHeartbeatId(0x701);
  Parse(driver, std::string("481#") + kReleasedStatus);
  while (!driver.reset) {
    driver.CheckEmergencyStop();
  }
  Parse(driver, std::string("481#") + kReadyStatus);
  driver.CheckEmergencyStop();
}
