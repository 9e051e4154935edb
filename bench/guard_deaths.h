// The deaths of a host, and how long its wheel outlives each.
#pragma once

#include <string>
#include <vector>

#include "report.h"

struct Setting {
  std::string motorctl;
  std::string make = "zl";
  int runs = 5;
};

struct Measure {
  std::string name;
  double promised_ms = 0;  // 0: nothing
  Figure ms = {};
  double stall_ms = 0;  // of the machine, in the worst run
  int late = 0;         // runs, later than promised by more than the machine stalled
  int stalled = 0;      // runs, by less

  void Add(double time_ms, double stalled_ms);
};

// Each dies `runs` times. Throw std::runtime_error when a wheel does not turn or is not stopped.
std::vector<Measure> MeasureKill(const Setting& setting);
std::vector<Measure> MeasureSuspension(const Setting& setting);
std::vector<Measure> MeasureHang(const Setting& setting);
std::vector<Measure> MeasureHangOfOneThread(const Setting& setting);
std::vector<Measure> MeasureUnplugging(const Setting& setting);
