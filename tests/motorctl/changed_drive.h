// A drive that is saved, and then changed as another engineer would leave it.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "config_bench.h"

using Where = std::pair<std::uint16_t, std::uint8_t>;

// Of the second reports of a drive, and its heartbeat.
inline const std::vector<Where> kTouched = {{0x1017, 0}, {0x1801, 1}, {0x1801, 2},
                                            {0x1801, 5}, {0x1A01, 0}, {0x1A01, 1}};

inline std::map<Where, std::uint32_t> Held(sim::SimulatedDrive& drive) {
  std::map<Where, std::uint32_t> held;
  for (const Where& where : kTouched) held[where] = drive.ReadObject(where.first, where.second);
  return held;
}

// As another engineer would have left it.
inline void Change(sim::SimulatedDrive& drive) {
  const std::uint32_t mode_display = 0x60610008;
  for (const auto& [index, sub, value] :
       std::vector<std::tuple<std::uint16_t, std::uint8_t, std::uint32_t>>{
           {0x1017, 0, 0},
           {0x1801, 1, 0x80000281},
           {0x1A01, 0, 0},
           {0x1A01, 1, mode_display},
           {0x1A01, 0, 1},
           {0x1801, 2, 1},
           {0x1801, 5, 20},
           {0x1801, 1, 0x00000282}}) {
    EXPECT_EQ(drive.WriteObject(index, sub, value), sim::AbortCode::kNone) << std::hex << index;
  }
}

class ChangedDriveTest : public ConfigBench {
 protected:
  // Saves a drive of this make and then changes it.
  std::unique_ptr<sim::SimulatedDrive> Changed(const std::string& make = "zl") {
    auto drive = std::make_unique<sim::SimulatedDrive>(Options(make));
    drive->WriteObject(0x1017, 0, 500);
    EXPECT_EQ(Save(make).status, 0);
    saved_ = Held(*drive);
    Change(*drive);
    changed_ = Held(*drive);
    return drive;
  }

  // While this host sends the frame again and again.
  template <typename Host>
  Result RestoreBeside(Host& host, const std::string& frame) {
    std::atomic<bool> ended{false};
    std::thread sending([&] {
      while (!ended) {
        host.Send(frame);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
    const Result result = Restore();
    ended = true;
    sending.join();
    return result;
  }

  void ExpectRefusal(const std::string& reason, const Arguments& more = {}) {
    bus::FarEnd record;
    const Result result = Restore(more);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(Contains(result.err, reason)) << result.err;
    EXPECT_EQ(NotReads(record.Frames()), std::vector<std::string>());
  }

  std::map<Where, std::uint32_t> saved_;
  std::map<Where, std::uint32_t> changed_;
};
