// What the wheels were measured to do: for the control loop, for the verdict, for the reader.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string>

#include "make.h"
#include "speed_profile.h"

// The latest readings. One reading is coarse: at 4096 counts per revolution and a period of 10 ms
// one count is 1.5 rpm.
class LatestSpeeds {
 public:
  void Clear() { count_ = 0; }
  void Add(const MeasuredRpm& rpm);
  MeasuredRpm Mean() const;

  // Whether the wheels stood still during the last kWindow readings.
  bool Standing() const;

 private:
  static constexpr std::size_t kWindow = 10;
  static constexpr double kStandingRpm = 1.0;

  std::array<MeasuredRpm, kWindow> readings_ = {};
  std::size_t count_ = 0;
};

// Compares the mean of all settled readings with the command, for each wheel and phase.
class SpeedVerdict {
 public:
  static constexpr double kTolerancePercent = 2.0;

  explicit SpeedVerdict(std::size_t wheels) : wheels_(wheels) {}

  // One reading while `point` was commanded; readings that have not settled do not count.
  void Add(const ProfilePoint& point, const MeasuredRpm& rpm);

  // Phases in which speeds were judged.
  std::size_t judged() const;
  bool WithinTolerance() const;

  // The worst phase of each wheel, in one line.
  std::string Summary() const;

 private:
  struct Record {
    int target = 0;
    double sum = 0;
    int count = 0;
    double Mean() const { return sum / count; }
    double OffPercent() const { return (Mean() - target) / target * 100; }
  };

  const Record& Worst(std::size_t wheel) const;

  std::size_t wheels_;
  std::array<std::array<Record, SpeedProfile::kMovingPhases>, 2> records_ = {};
};

// Targets and measured speeds on standard output: a table redrawn in place, or plain lines.
class SpeedTable {
 public:
  SpeedTable(bool in_place, std::size_t wheels, double seconds)
      : in_place_(in_place), wheels_(wheels), seconds_(seconds) {}

  // To be called in every cycle; shows what a reader can follow.
  void Show(double second, const ProfilePoint& point, const MeasuredRpm& measured);

 private:
  bool in_place_;
  std::size_t wheels_;
  double seconds_;
  bool drawn_ = false;
  double next_ = 0;
};
