#include <fmt/format.h>
#include <kinco_driver.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

#include "bare.h"
#include "measures.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned long kCountsPerRevolution = 10000;
constexpr std::uint32_t kStatusPdo = 0x480;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kNodes = 32;
constexpr auto kPeriod = milliseconds(5);
constexpr auto kSettled = milliseconds(50);
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kLooksEvery = std::chrono::microseconds(20);

constexpr std::uint8_t kReady = 0x37;
constexpr std::uint8_t kFault = 0x18;
constexpr std::uint8_t kEmergency = 0x50;

double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

can_frame StatusFrame(std::uint32_t node, std::uint8_t statusword, std::uint8_t inputs = 0) {
  can_frame frame = {};
  frame.can_id = kStatusPdo + node;
  frame.can_dlc = 6;
  frame.data[2] = statusword;
  frame.data[4] = inputs;
  return frame;
}

double CpuUs(clockid_t clock) {
  timespec time = {};
  ::clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

// Nodes 2 to 32, all ready, each with a status PDO every 5 ms.
class OtherNodes {
 public:
  explicit OtherNodes(const std::string& interface)
      : can_(interface, false), thread_([this] { Run(); }) {
    can_.HearNothing();
    ::pthread_getcpuclockid(thread_.native_handle(), &cpu_clock_);
  }
  ~OtherNodes() {
    running_ = false;
    thread_.join();
  }
  OtherNodes(const OtherNodes&) = delete;
  OtherNodes& operator=(const OtherNodes&) = delete;

  clockid_t cpu_clock() const { return cpu_clock_; }

 private:
  void Run() {
    for (auto next = Clock::now(); running_; next += kPeriod) {
      std::this_thread::sleep_until(next);
      for (std::uint32_t node = 2; node <= kNodes; ++node) {
        can_.Send(StatusFrame(node, kReady));
      }
    }
  }

  RawCan can_;
  clockid_t cpu_clock_ = 0;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

std::unique_ptr<KincoDriver> OpenDrive(const Bench& bench) {
  auto drive = std::make_unique<KincoDriver>(bench.interface.c_str(), kCountsPerRevolution);
  if (drive->GetCanError() != 0) {
    throw std::runtime_error("the library cannot open CAN interface " + bench.interface);
  }
  for (std::uint32_t node = 1; node <= kNodes; ++node) {
    drive->AddHeartbeatId(kHeartbeat + node);
  }
  return drive;
}

void WaitForStatus(KincoDriver& drive, DriverStatus status) {
  const auto start = Clock::now();
  while (drive.GetDriverStatus(1) != status) {
    if (Clock::now() > start + kPatience) {
      throw std::runtime_error("no status PDO arrives: are the two interfaces connected?");
    }
    std::this_thread::sleep_for(kLooksEvery);
  }
}

// From before the write of a status PDO until GetDriverStatus() shows it.
Figure StatusLag(const Bench& bench, KincoDriver& drive) {
  RawCan node(bench.far_interface, false);
  node.HearNothing();
  Figure lag_ms;
  for (std::uint32_t i = 0; i < bench.scale.latencies; ++i) {
    const bool ready = i % 2 == 0;
    // At another moment of the loop's cycle each time.
    std::this_thread::sleep_for(std::chrono::microseconds(i * 377 % 5000));
    const auto sent = Clock::now();
    node.Send(StatusFrame(1, ready ? kReady : kFault));
    WaitForStatus(drive, ready ? DriverStatus::Ready : DriverStatus::Fault);
    lag_ms.Add(MsSince(sent));
    drive.ClearReadQueue();
  }
  return lag_ms;
}

// What the process spends per second while its main thread sleeps, without the sender.
double CpuPerSecond(const Bench& bench, const OtherNodes* nodes) {
  const auto spent = [&] {
    return CpuUs(CLOCK_PROCESS_CPUTIME_ID) - (nodes != nullptr ? CpuUs(nodes->cpu_clock()) : 0);
  };
  const auto start = Clock::now();
  const double before = spent();
  std::this_thread::sleep_for(std::chrono::duration<double>(bench.scale.cpu_seconds));
  return (spent() - before) / MsSince(start) * 1000;
}

Figure CpuOfTheLoop(const Bench& bench, KincoDriver& drive, const OtherNodes* nodes) {
  Figure cpu;
  for (int i = 0; i < bench.scale.repetitions; ++i) {
    const double without = CpuPerSecond(bench, nodes);
    drive.StartErrorParsingLoop();
    std::this_thread::sleep_for(kSettled);
    cpu.Add(CpuPerSecond(bench, nodes) - without);
    drive.StopErrorParsingLoop();
    drive.ClearReadQueue();
  }
  return cpu;
}

struct Recovery {
  Figure first_ms;
  Figure third_ms;
};

// From before the write of the status PDO that shows the release until the controlwords arrive.
Recovery ControlwordsAfterRelease(const Bench& bench, KincoDriver& drive) {
  RawCan node(bench.far_interface, false);
  node.GiveUpAfterOneSecond();
  Recovery recovery;
  for (int i = 0; i < bench.scale.repetitions; ++i) {
    node.Send(StatusFrame(1, kEmergency, 1));
    WaitForStatus(drive, DriverStatus::EmergencyStop);
    std::this_thread::sleep_for(kSettled);
    node.DropPending();
    const auto released = Clock::now();
    node.Send(StatusFrame(1, kEmergency));
    for (int controlwords = 0; controlwords < 3 && MsSince(released) < 5000;) {
      can_frame frame = {};
      if (node.Receive(frame) && frame.can_id == kSdoRequest + 1) {
        ++controlwords;
        if (controlwords == 1) {
          recovery.first_ms.Add(MsSince(released));
        } else if (controlwords == 3) {
          recovery.third_ms.Add(MsSince(released));
        }
      }
    }
    node.Send(StatusFrame(1, kReady));
    std::this_thread::sleep_for(kSettled);
  }
  return recovery;
}

}  // namespace

std::vector<Row> MeasureSupervision(const Bench& bench) {
  const std::unique_ptr<KincoDriver> drive = OpenDrive(bench);
  const Figure cpu_at_rest = CpuOfTheLoop(bench, *drive, nullptr);
  drive->StartErrorParsingLoop();
  const Figure lag_of_one = StatusLag(bench, *drive);
  const Recovery recovery = ControlwordsAfterRelease(bench, *drive);
  drive->StopErrorParsingLoop();

  const OtherNodes nodes(bench.far_interface);
  const Figure cpu_with_32 = CpuOfTheLoop(bench, *drive, &nodes);
  drive->StartErrorParsingLoop();
  const Figure lag_of_32 = StatusLag(bench, *drive);
  drive->StopErrorParsingLoop();
  return {
      {"status store behind the bus, 1 node, median", "ms", lag_of_one.At(0.5), {}},
      {"status store behind the bus, 1 node, 99 %", "ms", lag_of_one.At(0.99), {}},
      {"status store behind the bus, 32 nodes, median", "ms", lag_of_32.At(0.5), {}},
      {"status store behind the bus, 32 nodes, 99 %", "ms", lag_of_32.At(0.99), {}},
      {"supervision at rest, CPU", "us/s", cpu_at_rest, {}},
      {"supervision of 32 nodes at 5 ms, CPU", "us/s", cpu_with_32, {}},
      {"emergency released to first controlword (wait 1000)", "ms", recovery.first_ms, {}},
      {"emergency released to third controlword (wait 1000)", "ms", recovery.third_ms, {}},
  };
}
