// What the tests of the drive classes share: a drive of no make, and ways to look at a read queue.
#pragma once

#include <driver_common.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "eventually.h"
#include "far_end.h"

// The least that is a drive: every operation that has a default keeps it. Counts its heartbeats.
class ObservedDriver : public DriverCommon {
 public:
  using DriverCommon::DriverCommon;

  bool ActiveNode(std::uint8_t) override { return false; }
  std::uint16_t SetSpeedMode(std::uint8_t) override { return 0; }
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t, std::uint16_t) override { return 0; }
  bool CheckStatus(std::uint8_t) override { return false; }
  bool SaveAllParams(std::uint8_t) override { return false; }
  std::uint32_t GetNumberOfPulsesPerRevolution() override { return 0; }
  void HeartbeatCallback(HeartbeatTimeout& hb) override {
    DriverCommon::HeartbeatCallback(hb);
    ++heartbeats;
  }

  std::atomic<int> heartbeats{0};
};

using support::Eventually;

inline bool WaitQueued(DriverCan& driver, std::uint32_t count) {
  return Eventually([&] { return driver.GetReadQueueSize() >= count; });
}

// Takes every queued frame, as candump text.
inline std::vector<std::string> TakeQueued(DriverCan& driver) {
  std::vector<std::string> texts;
  CanFrame taken = {};
  while (driver.GetCanFrame(taken)) {
    can_frame frame = {};
    frame.can_id = taken.can_id;
    frame.can_dlc = taken.len;
    std::memcpy(frame.data, taken.data, sizeof(taken.data));
    texts.push_back(bus::FormatFrame(frame));
  }
  return texts;
}

// Sends frames from the far end and waits until the driver has queued them all.
inline void Queue(DriverCan& driver, bus::FarEnd& far_end, const std::vector<std::string>& frames) {
  const std::uint32_t before = driver.GetReadQueueSize();
  for (const std::string& frame : frames) {
    far_end.Send(frame);
  }
  ASSERT_TRUE(WaitQueued(driver, before + static_cast<std::uint32_t>(frames.size())));
}

// Checks that nothing is queued and that no filter keeps anything out any more.
inline void ExpectHearsEverything(DriverCan& driver, bus::FarEnd& far_end) {
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{});
  const std::vector<std::string> everything = {"000#0101", "182#01", "585#02", "77F#05",
                                               "1ABCDEF0#03"};
  Queue(driver, far_end, everything);
  EXPECT_EQ(TakeQueued(driver), everything);
}
