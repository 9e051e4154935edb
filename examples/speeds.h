// What the drive cycle tells of its speeds: while the wheels turn, and in the end.
#pragma once

#include <wheels.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

// Compares what the wheels did with the command, for each wheel and phase: revolutions over the
// time at which they were reported, as a straight line through all of them. A machine that is busy
// hears some reports late, which bends a speed over 100 ms, but not the line.
class SpeedVerdict {
 public:
  static constexpr double kTolerancePercent = 2.0;
  static constexpr double kFewestReports = 30;

  SpeedVerdict(std::vector<std::string> wheels, std::size_t phases)
      : wheels_(std::move(wheels)), phases_(phases), records_(wheels_.size() * phases) {}

  // The wheel is not at its speed: what was measured before, if it suffices, is what is judged.
  void Leave(std::size_t phase, std::size_t wheel);

  // One report of a speed that has settled.
  void Add(std::size_t phase, std::size_t wheel, const motor_driver::WheelReport& report);

  // Every wheel was judged in every phase.
  bool Complete() const { return Judged() == phases_; }
  bool WithinTolerance() const;

  // The worst phase of each wheel, in one line.
  std::string Summary() const;

 private:
  // Sums of a straight line, from the first report on.
  struct Record {
    bool closed = false;
    double target = 0;
    std::chrono::steady_clock::time_point begin;
    std::chrono::steady_clock::time_point latest;
    double first = 0;
    double n = 0;
    double t = 0;
    double x = 0;
    double tt = 0;
    double tx = 0;
    bool Judged() const { return n >= kFewestReports; }
    double Rpm() const { return (n * tx - t * x) / (n * tt - t * t); }
    double OffPercent() const { return (Rpm() - target) / target * 100; }
  };

  std::size_t Judged() const;
  Record& At(std::size_t phase, std::size_t wheel) { return records_[wheel * phases_ + phase]; }

  std::vector<std::string> wheels_;
  std::size_t phases_;
  std::vector<Record> records_;
};

// Targets and measured speeds on standard output: a table redrawn in place, or plain lines.
class SpeedTable {
 public:
  SpeedTable(bool in_place, std::vector<std::string> wheels, double seconds)
      : in_place_(in_place), wheels_(std::move(wheels)), seconds_(seconds) {}

  // To be called in every cycle; shows what a reader can follow.
  void Show(double second, const char* phase, const motor_driver::Wheels& wheels);

 private:
  bool in_place_;
  std::vector<std::string> wheels_;
  double seconds_;
  bool drawn_ = false;
  double next_ = 0;
};
