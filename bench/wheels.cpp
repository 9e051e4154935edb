// The host layer: what its control cycle costs, what its calls cost, how late it wakes.
#include <fmt/format.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "allocations.h"
#include "drives.h"
#include "loops.h"
#include "measures.h"
#include "wakes.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kWarmUpCycles = 100;
constexpr double kCycleLimit = 1.15;
constexpr double kCallLimitNs = 1'000;
constexpr double kLatenessLimit = 1.1;

double CpuNs(clockid_t clock) {
  timespec time = {};
  ::clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// CPU time of the whole process, per cycle.
template <typename Run>
Figure CostOfCycles(const Bench& bench, Run run) {
  run(kWarmUpCycles);
  Figure cost;
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    const double before = CpuNs(CLOCK_PROCESS_CPUTIME_ID);
    const double cycles = run(bench.scale.cycles);
    cost.Add((CpuNs(CLOCK_PROCESS_CPUTIME_ID) - before) / cycles);
  }
  return cost;
}

struct CycleFigures {
  Figure wheels;
  Figure closely;  // likewise, with a host that commands and looks in every cycle
  Figure by_hand;
  Figure bare;
  Figure thread_allocations;  // of the control thread
  Figure wheels_allocations;  // of the whole process
  Figure by_hand_allocations;
};

template <typename Run>
Figure AllocationsOfCycles(const Bench& bench, Run run) {
  Figure allocations;
  const std::uint64_t before = Allocations();
  run(bench.scale.cycles);
  allocations.Add(static_cast<double>(Allocations() - before));
  return allocations;
}

CycleFigures MeasureCyclesOf(const Bench& bench, const std::string& make, std::uint32_t wheels) {
  const DrivesProcess drives(make, wheels, bench.far_interface);
  CycleFigures figures;
  {
    WheelsLoop loop(VehicleOf(make, wheels, bench.interface));
    figures.wheels = CostOfCycles(bench, [&](std::uint32_t cycles) { return loop.Run(cycles); });
    const auto closely = [&](std::uint32_t cycles) { return loop.RunClosely(cycles); };
    figures.closely = CostOfCycles(bench, closely);
    {
      const WakeRecord record;
      figures.wheels_allocations = AllocationsOfCycles(bench, closely);
      figures.thread_allocations.Add(record.OfTheOther(::pthread_self()).allocations);
    }
  }
  {
    HandLoop loop(make, wheels, bench.interface);
    const auto run = [&](std::uint32_t cycles) { return loop.Run(cycles); };
    figures.by_hand = CostOfCycles(bench, run);
    figures.by_hand_allocations = AllocationsOfCycles(bench, run);
  }
  BareLoop loop(wheels, bench.interface);
  figures.bare = CostOfCycles(bench, [&](std::uint32_t cycles) { return loop.Run(cycles); });
  return figures;
}

// Of the calling thread.
struct CallFigures {
  Figure cpu;
  Figure allocations;  // of all calls
};

template <typename Call>
CallFigures CostOfCall(const Bench& bench, Call call) {
  CallFigures figures;
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    const std::uint64_t allocated = ThreadAllocations();
    const double before = CpuNs(CLOCK_THREAD_CPUTIME_ID);
    for (std::uint32_t i = 0; i < bench.scale.sends; ++i) {
      call();
    }
    const double cpu = CpuNs(CLOCK_THREAD_CPUTIME_ID) - before;
    const std::uint64_t allocated_after = ThreadAllocations();
    figures.cpu.Add(cpu / bench.scale.sends);
    figures.allocations.Add(static_cast<double>(allocated_after - allocated));
  }
  return figures;
}

void MeasureCallsOf(const Bench& bench, const std::string& make, std::vector<Row>& rows) {
  const std::uint32_t count = bench.scale.wheels;
  WheelsLoop loop(VehicleOf(make, count, bench.interface));
  motor_driver::Wheels& wheels = loop.wheels();
  loop.Run(kWarmUpCycles);
  const std::vector<double> rpm(count, kControlRpm);
  const auto add = [&](const char* call, const CallFigures& figures) {
    const std::string of = fmt::format("{}, {} {}", call, count, make);
    rows.push_back({of, "ns", figures.cpu, {}, Target::kValueAtMost, kCallLimitNs});
    rows.push_back({fmt::format("allocations in {} {}", bench.scale.sends, of),
                    "count",
                    figures.allocations,
                    {},
                    Target::kValueAtMost,
                    0});
  };
  add("Command", CostOfCall(bench, [&] { wheels.Command(rpm.data(), count); }));
  add("GetWheel", CostOfCall(bench, [&] { wheels.GetWheel(count - 1); }));
}

// A thread that does nothing but sleep to the next period.
class BareSleeper {
 public:
  BareSleeper() : thread_([this] { Run(); }) {}
  ~BareSleeper() {
    running_ = false;
    thread_.join();
  }
  BareSleeper(const BareSleeper&) = delete;
  BareSleeper& operator=(const BareSleeper&) = delete;
  pthread_t thread() { return thread_.native_handle(); }

 private:
  void Run() {
    for (auto next = Clock::now(); running_; next += kControlPeriod) {
      SleepUntil(next);
    }
  }

  std::atomic<bool> running_{true};
  std::thread thread_;
};

}  // namespace

std::vector<Row> MeasureControlCycle(const Bench& bench) {
  std::vector<Row> rows;
  for (const char* make : {"tt", "kinco"}) {
    for (const std::uint32_t wheels : {1U, bench.scale.wheels}) {
      const CycleFigures figures = MeasureCyclesOf(bench, make, wheels);
      const std::string name = fmt::format("cycle CPU, {} {} / ", wheels, make);
      rows.push_back({name + "by hand on the class", "ns/cycle", figures.wheels, figures.by_hand,
                      Target::kRatioAtMost, kCycleLimit});
      rows.push_back({name + "read + queue, write", "ns/cycle", figures.wheels, figures.bare});
      rows.push_back({name + "by hand, Command + GetWheel in each", "ns/cycle", figures.closely,
                      figures.by_hand});
      const std::string in = fmt::format("in {} cycles, {} {}", bench.scale.cycles, wheels, make);
      rows.push_back({"allocations of the control thread " + in,
                      "count",
                      figures.thread_allocations,
                      {},
                      Target::kValueAtMost,
                      0});
      rows.push_back({"allocations " + in + " / by hand", "count", figures.wheels_allocations,
                      figures.by_hand_allocations});
    }
  }
  return rows;
}

std::vector<Row> MeasureWheelsCalls(const Bench& bench) {
  std::vector<Row> rows;
  MeasureCallsOf(bench, "fake", rows);
  const DrivesProcess drives("kinco", bench.scale.wheels, bench.far_interface);
  MeasureCallsOf(bench, "kinco", rows);
  return rows;
}

std::vector<Row> MeasureLateness(const Bench& bench) {
  const DrivesProcess drives("kinco", bench.scale.wheels, bench.far_interface);
  WheelsLoop loop(VehicleOf("kinco", bench.scale.wheels, bench.interface));
  Figure medians[2];
  Figure p99s[2];
  Figure longest[2];
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    BareSleeper sleeper;
    const WakeRecord record;
    loop.Run(bench.scale.cycles);
    const Figure late[2] = {record.OfTheOther(sleeper.thread()).late_us,
                            record.Of(sleeper.thread()).late_us};
    for (const int side : {0, 1}) {
      medians[side].Add(late[side].Median());
      p99s[side].Add(late[side].Quantile(0.99));
      longest[side].Add(late[side].Quantile(1));
    }
  }
  const std::string name =
      fmt::format("lateness, {} wheels / thread that sleeps, ", bench.scale.wheels);
  return {
      {name + "median", "us", medians[0], medians[1]},
      {name + "99 %", "us", p99s[0], p99s[1], Target::kRatioAtMost, kLatenessLimit},
      {name + "longest", "us", longest[0], longest[1]},
  };
}
