// Every measure does the same work through the library and through a bare socket, in turn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "far_end.h"
#include "report.h"

// How much of everything.
struct Scale {
  int repetitions;
  double seconds;       // of the run at a fixed rate
  double cpu_seconds;   // of one repetition of a receive measure
  double step_seconds;  // of one step towards the highest rate
  std::uint32_t sends;
  std::uint32_t transactions;
  std::uint32_t latencies;
  std::uint32_t queued;
  int stops;
  std::uint32_t cycles;  // of a control loop, in one repetition
  std::uint32_t wheels;  // of a large vehicle
  std::uint32_t lapses;  // of a host that commands
};

struct Bench {
  FarEnd& far_end;
  std::string interface;
  std::string far_interface;
  Scale scale;
};

std::vector<Row> MeasureReceiveCost(const Bench& bench);
std::vector<Row> MeasureReceiveRate(const Bench& bench);
std::vector<Row> MeasureLatency(const Bench& bench);
std::vector<Row> MeasureQueueMemory(const Bench& bench);
std::vector<Row> MeasureSend(const Bench& bench);
std::vector<Row> MeasureSdo(const Bench& bench);
std::vector<Row> MeasureStop(const Bench& bench);
std::vector<Row> MeasureIdleCost(const Bench& bench);
// Wheels beside loops that do the same on a drive class and on a bare socket.
std::vector<Row> MeasureControlCycle(const Bench& bench);
std::vector<Row> MeasureWheelsCalls(const Bench& bench);
std::vector<Row> MeasureLateness(const Bench& bench);
std::vector<Row> MeasureStaleCommand(const Bench& bench);
// The library alone: there is nothing to compare it with.
std::vector<Row> MeasureSupervision(const Bench& bench);
