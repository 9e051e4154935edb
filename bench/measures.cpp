#include "measures.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <zl_driver.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "allocations.h"
#include "bare.h"
#include "idle.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint32_t kHeartbeat = 0x701;  // of node 1: ends in the handler
constexpr std::uint32_t kFeedback = 0x181;   // a TPDO of node 1: ends in the queue
constexpr std::uint32_t kRequest = 0x601;
constexpr std::uint32_t kAnswer = 0x581;
constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint8_t kUpload = 0x40;

constexpr std::uint32_t kFullBus = 8'000;  // frames per second: 1 Mbit/s
constexpr std::uint32_t kTwoFullBuses = 16'000;
constexpr std::uint32_t kHighestRate = 1'024'000;
constexpr std::uint32_t kWindow = 128;  // frames that fit into a socket's buffer with room to spare

constexpr auto kHostPeriod = milliseconds(5);
constexpr auto kSettled = milliseconds(200);  // nothing comes any more

constexpr double kHandlerLimit = 1.2;
// In bursts the bare side costs a third: it is not woken for every frame.
constexpr double kQueueOrBurstLimit = 1.3;
constexpr double kSendLimit = 1.1;
constexpr double kStopLimitMs = 100;

double Seconds(clockid_t clock) {
  timespec time = {};
  ::clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::uint32_t Scaled(double seconds, std::uint32_t rate) {
  return static_cast<std::uint32_t>(seconds * rate);
}

std::unique_ptr<ZlDriver> OpenDrive(const std::string& interface) {
  auto drive = std::make_unique<ZlDriver>(interface.c_str());
  if (drive->GetCanError() != 0) {
    throw std::runtime_error("the library cannot open CAN interface " + interface);
  }
  return drive;
}

// A drive whose heartbeats of nodes 1 to `nodes` are counted in the handler.
class LibraryReader {
 public:
  LibraryReader(const Bench& bench, std::uint32_t nodes) : drive_(OpenDrive(bench.interface)) {
    // The library does not name its thread: it tells its clock in a callback.
    std::promise<clockid_t> clock;
    drive_->AddHeartbeatCallback(kHeartbeat, [&clock](HeartbeatTimeout&) {
      clockid_t mine = 0;
      ::pthread_getcpuclockid(::pthread_self(), &mine);
      clock.set_value(mine);
    });
    bench.far_end.Start({kHeartbeat, 1, 1, 1, 0});
    bench.far_end.Finish();
    std::future<clockid_t> told = clock.get_future();
    if (told.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
      drive_.reset();
      throw std::runtime_error("the two interfaces are not connected: no frame arrives");
    }
    cpu_clock_ = told.get();
    for (std::uint32_t node = 0; node < nodes; ++node) {
      drive_->AddHeartbeatCallback(kHeartbeat + node, [this](HeartbeatTimeout&) {
        counted_.fetch_add(1, std::memory_order_relaxed);
      });
    }
  }
  ~LibraryReader() { drive_.reset(); }  // before what its callbacks use
  LibraryReader(const LibraryReader&) = delete;
  LibraryReader& operator=(const LibraryReader&) = delete;

  std::uint64_t TakeAll() {
    std::uint64_t taken = counted_.exchange(0, std::memory_order_relaxed);
    CanFrame frame = {};
    while (drive_->GetCanFrame(frame)) {
      ++taken;
    }
    return taken;
  }
  std::uint64_t queued() { return drive_->GetReadQueueSize(); }
  clockid_t cpu_clock() const { return cpu_clock_; }

 private:
  std::unique_ptr<ZlDriver> drive_;
  clockid_t cpu_clock_ = 0;
  std::atomic<std::uint64_t> counted_{0};
};

struct Received {
  Sent sent;
  std::uint64_t frames;
  double cpu_ns_per_frame;  // of the thread that reads the socket
  double allocations_per_frame;
};

template <class Reader>
Received Receive(const Bench& bench, Reader& reader, const Traffic& traffic) {
  const std::uint64_t allocations = Allocations();
  const double cpu = Seconds(reader.cpu_clock());
  Received result = {};
  bench.far_end.Start(traffic);
  while (!bench.far_end.Done()) {
    std::this_thread::sleep_for(kHostPeriod);
    result.frames += reader.TakeAll();
  }
  result.sent = bench.far_end.Finish();
  for (auto last = Clock::now();
       result.frames < result.sent.count && Clock::now() < last + kSettled;
       std::this_thread::sleep_for(milliseconds(1))) {
    if (const std::uint64_t more = reader.TakeAll()) {
      result.frames += more;
      last = Clock::now();
    }
  }
  const auto frames = static_cast<double>(result.frames);
  result.cpu_ns_per_frame = (Seconds(reader.cpu_clock()) - cpu) * 1e9 / frames;
  result.allocations_per_frame = static_cast<double>(Allocations() - allocations) / frames;
  return result;
}

template <class Reader>
double HighestRate(const Bench& bench, Reader& reader) {
  double highest = 0;
  for (std::uint32_t rate = kFullBus / 2; rate <= kHighestRate; rate *= 2) {
    const Received result =
        Receive(bench, reader, {kFeedback, 1, Scaled(bench.scale.step_seconds, rate), 1, rate});
    const double achieved = result.sent.count / result.sent.seconds;
    if (result.frames < result.sent.count || achieved < 0.9 * rate) {
      break;
    }
    highest = achieved;
  }
  return highest;
}

template <class Reader>
double BytesPerQueuedFrame(const Bench& bench, Reader& reader) {
  const double heap = HeapBytes();
  std::uint64_t queued = 0;
  while (queued < bench.scale.queued) {
    bench.far_end.Start({kFeedback, 1, kWindow, 1, 0});
    queued += bench.far_end.Finish().count;
    const auto start = Clock::now();
    while (reader.queued() < queued) {
      if (Clock::now() > start + std::chrono::seconds(5)) {
        throw std::runtime_error("frames that fit into the socket's buffer were lost");
      }
      ::sched_yield();
    }
  }
  return (HeapBytes() - heap) / static_cast<double>(queued);
}

// Runs `send_one` as often as the scale says; CPU time of one call in ns, and allocations.
template <class SendOne>
void TimeSends(const Bench& bench, SendOne send_one, Figure& cost, Figure* allocations) {
  for (int warm_up = 0; warm_up < 100; ++warm_up) {
    send_one();
  }
  const std::uint64_t allocated = Allocations();
  const double start = Seconds(CLOCK_THREAD_CPUTIME_ID);
  for (std::uint32_t i = 0; i < bench.scale.sends; ++i) {
    if (!send_one()) {
      throw std::runtime_error("a frame could not be sent");
    }
  }
  const double cpu = Seconds(CLOCK_THREAD_CPUTIME_ID) - start;
  const std::uint64_t allocated_after = Allocations();
  cost.Add(cpu * 1e9 / bench.scale.sends);
  if (allocations != nullptr) {
    allocations->Add(static_cast<double>(allocated_after - allocated) / bench.scale.sends);
  }
}

struct SdoFigures {
  Figure median_us;
  Figure p99_us;
  Figure cpu_us;
  Figure allocations;
  Figure failed;
};

template <class Transact>
void TimeTransactions(const Bench& bench, Transact transact, SdoFigures& figures) {
  const std::uint32_t count = bench.scale.transactions;
  bench.far_end.StartAnswering(count + 1);
  transact();  // what the first one sets up once is not the cost of each
  Figure durations;
  std::uint32_t failed = 0;
  const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
  std::uint64_t allocated = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint64_t allocated_before = Allocations();
    const auto start = Clock::now();
    failed += transact() ? 0 : 1;
    const double duration = Since(start);
    allocated += Allocations() - allocated_before;
    durations.Add(duration * 1e6);
  }
  figures.cpu_us.Add((Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu) * 1e6 / count);
  bench.far_end.Finish();
  figures.median_us.Add(durations.Median());
  figures.p99_us.Add(durations.Quantile(0.99));
  figures.allocations.Add(static_cast<double>(allocated) / count);
  figures.failed.Add(failed);
}

can_frame StatuswordRequest() {
  can_frame request = {};
  request.can_id = kRequest;
  request.can_dlc = 8;
  request.data[0] = kUpload;
  request.data[1] = kStatusword & 0xFF;
  request.data[2] = kStatusword >> 8;
  return request;
}

struct LatencyFigures {
  Figure median_us;
  Figure p99_us;
};

// `take` delivers one frame if there is one, waiting or not.
template <class Take>
void TimeArrivals(const Bench& bench, Take take, LatencyFigures& figures) {
  const std::uint32_t count = bench.scale.latencies;
  bench.far_end.Start({kFeedback, 1, count, 1, 1'000});
  Figure latencies;
  std::uint32_t taken = 0;
  for (auto last = Clock::now(); taken < count && Since(last) < 1;) {
    std::uint8_t stamp[8] = {};
    if (take(stamp)) {
      last = Clock::now();
      latencies.Add(SecondsSince(stamp) * 1e6);
      ++taken;
    } else {
      ::sched_yield();
    }
  }
  bench.far_end.Finish();
  if (latencies.empty()) {
    throw std::runtime_error("no frame arrives");
  }
  figures.median_us.Add(latencies.Median());
  figures.p99_us.Add(latencies.Quantile(0.99));
}

template <class Action>
void TimeMs(Figure& figure, Action action) {
  std::this_thread::sleep_for(kHostPeriod);  // the reader has come to its read
  const auto start = Clock::now();
  action();
  figure.Add(Since(start) * 1e3);
}

struct ReceiveKind {
  const char* name;
  Traffic traffic;
  bool queueing;
};

}  // namespace

std::vector<Row> MeasureReceiveCost(const Bench& bench) {
  const std::uint32_t count = Scaled(bench.scale.cpu_seconds, kFullBus);
  const ReceiveKind kinds[] = {
      {"handler", {kHeartbeat, 1, count, 1, kFullBus}, false},
      {"handler, 64 nodes", {kHeartbeat, 64, count, 1, kFullBus}, false},
      {"queue", {kFeedback, 1, count, 1, kFullBus}, true},
      {"handler, bursts of 64", {kHeartbeat, 1, count, 64, kFullBus}, false},
      {"queue, bursts of 64", {kFeedback, 1, count, 64, kFullBus}, true},
  };
  std::vector<Row> rows;
  std::vector<Row> allocation_rows;
  for (const ReceiveKind& kind : kinds) {
    Figure library;
    Figure read_alone;
    Figure read_and_queue;
    Figure library_allocations;
    Figure bare_allocations;
    for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
      {
        LibraryReader reader(bench, kind.traffic.nodes);
        const Received result = Receive(bench, reader, kind.traffic);
        library.Add(result.cpu_ns_per_frame);
        library_allocations.Add(result.allocations_per_frame);
      }
      BareReader counting(bench.interface, false);
      read_alone.Add(Receive(bench, counting, kind.traffic).cpu_ns_per_frame);
    }
    for (int repetition = 0; kind.queueing && repetition < bench.scale.repetitions; ++repetition) {
      BareReader queueing(bench.interface, true);
      const Received result = Receive(bench, queueing, kind.traffic);
      read_and_queue.Add(result.cpu_ns_per_frame);
      bare_allocations.Add(result.allocations_per_frame);
    }
    const std::string name = fmt::format("receive CPU, {}", kind.name);
    if (kind.queueing) {
      rows.push_back({name + " / read + queue", "ns/frame", library, read_and_queue,
                      Target::kRatioAtMost, kQueueOrBurstLimit});
      rows.push_back({name + " / read alone", "ns/frame", library, read_alone});
    } else {
      rows.push_back({name + " / read alone", "ns/frame", library, read_alone, Target::kRatioAtMost,
                      kind.traffic.burst > 1 ? kQueueOrBurstLimit : kHandlerLimit});
    }
    if (kind.traffic.burst == 1 && kind.traffic.nodes == 1) {
      allocation_rows.push_back({fmt::format("receive allocations, {}", kind.name), "per frame",
                                 library_allocations, bare_allocations});
    }
  }
  rows.insert(rows.end(), allocation_rows.begin(), allocation_rows.end());
  return rows;
}

std::vector<Row> MeasureReceiveRate(const Bench& bench) {
  const Traffic steady = {kFeedback, 1, Scaled(bench.scale.seconds, kTwoFullBuses), 1,
                          kTwoFullBuses};
  Row lost = {fmt::format("frames lost of {} at 16000/s", steady.count),
              "frames",
              {},
              {},
              Target::kValueAtMost,
              0};
  Row achieved = {"  rate at which the far end sent them", "frames/s", {}, {}};
  Row highest = {"highest rate without loss", "frames/s", {}, {}};
  const auto note = [&](const Received& result, Figure& lost_frames, Figure& rate) {
    lost_frames.Add(static_cast<double>(result.sent.count) - static_cast<double>(result.frames));
    rate.Add(result.sent.count / result.sent.seconds);
  };
  {
    LibraryReader reader(bench, 1);
    note(Receive(bench, reader, steady), lost.library, achieved.library);
  }
  {
    BareReader reader(bench.interface, true);
    note(Receive(bench, reader, steady), lost.bare, achieved.bare);
  }
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    {
      LibraryReader reader(bench, 1);
      highest.library.Add(HighestRate(bench, reader));
    }
    BareReader reader(bench.interface, true);
    highest.bare.Add(HighestRate(bench, reader));
  }
  return {lost, achieved, highest};
}

std::vector<Row> MeasureLatency(const Bench& bench) {
  LatencyFigures library;
  LatencyFigures read;
  LatencyFigures read_and_queue;
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    {
      const auto drive = OpenDrive(bench.interface);
      const auto take = [&](std::uint8_t* stamp) {
        CanFrame frame = {};
        const bool taken = drive->GetCanFrame(frame);
        std::copy_n(frame.data, 8, stamp);
        return taken;
      };
      TimeArrivals(bench, take, library);
    }
    {
      RawCan can(bench.interface, false);
      can.GiveUpAfterOneSecond();
      const auto take = [&](std::uint8_t* stamp) {
        can_frame frame = {};
        const bool taken = can.Receive(frame);
        std::copy_n(frame.data, 8, stamp);
        return taken;
      };
      TimeArrivals(bench, take, read);
    }
    BareReader reader(bench.interface, true);
    const auto take = [&](std::uint8_t* stamp) {
      can_frame frame = {};
      const bool taken = reader.Take(frame);
      std::copy_n(frame.data, 8, stamp);
      return taken;
    };
    TimeArrivals(bench, take, read_and_queue);
  }
  return {
      {"wire to GetCanFrame, median / blocking read", "us", library.median_us, read.median_us},
      {"wire to GetCanFrame, 99 % / blocking read", "us", library.p99_us, read.p99_us},
      {"wire to GetCanFrame, median / read + queue", "us", library.median_us,
       read_and_queue.median_us},
      {"wire to GetCanFrame, 99 % / read + queue", "us", library.p99_us, read_and_queue.p99_us},
  };
}

std::vector<Row> MeasureQueueMemory(const Bench& bench) {
  Row row = {
      fmt::format("memory of a queued frame, {} queued", bench.scale.queued), "bytes", {}, {}};
  {
    LibraryReader reader(bench, 1);
    row.library.Add(BytesPerQueuedFrame(bench, reader));
  }
  BareReader reader(bench.interface, true);
  row.bare.Add(BytesPerQueuedFrame(bench, reader));
  return {row};
}

std::vector<Row> MeasureSend(const Bench& bench) {
  Figure can_write;
  Figure set_speed;
  Figure bare;
  Figure bare_looped;
  Figure can_write_allocations;
  Figure set_speed_allocations;
  can_frame frame = {};
  frame.can_id = 0x201;
  frame.can_dlc = 8;
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    {
      const auto drive = OpenDrive(bench.interface);
      const auto write = [&] { return drive->CanWrite(frame.can_id, frame.data, frame.can_dlc); };
      TimeSends(bench, write, can_write, &can_write_allocations);
      const auto command = [&] { return drive->SetSpeed(1, 100, -100); };
      TimeSends(bench, command, set_speed, &set_speed_allocations);
    }
    for (const bool loopback : {false, true}) {
      RawCan can(bench.interface, loopback);
      const auto write = [&] { return can.Send(frame); };
      TimeSends(bench, write, loopback ? bare_looped : bare, nullptr);
    }
  }
  return {
      {"send CPU, CanWrite / write", "ns/frame", can_write, bare, Target::kRatioAtMost, kSendLimit},
      {"send CPU, SetSpeed / write", "ns/frame", set_speed, bare, Target::kRatioAtMost, kSendLimit},
      {"send CPU, CanWrite / write with loop-back", "ns/frame", can_write, bare_looped},
      {"send allocations, CanWrite",
       "per frame",
       can_write_allocations,
       {},
       Target::kValueAtMost,
       0},
      {"send allocations, SetSpeed",
       "per frame",
       set_speed_allocations,
       {},
       Target::kValueAtMost,
       0},
  };
}

std::vector<Row> MeasureSdo(const Bench& bench) {
  SdoFigures library;
  SdoFigures blocking;
  SdoFigures polling;
  const can_frame request = StatuswordRequest();
  for (int repetition = 0; repetition < bench.scale.repetitions; ++repetition) {
    {
      const auto drive = OpenDrive(bench.interface);
      const auto transact = [&] {
        std::uint32_t statusword = 0;
        return drive->SdoWriteWithFeedbackData(kRequest, kUpload, kStatusword, 0, 0, &statusword);
      };
      TimeTransactions(bench, transact, library);
    }
    {
      RawCan can(bench.interface, false);
      can.HearOnly(kAnswer);
      can.GiveUpAfterOneSecond();
      const auto transact = [&] {
        can_frame answer = {};
        return can.Send(request) && can.Receive(answer);
      };
      TimeTransactions(bench, transact, blocking);
    }
    BareReader reader(bench.interface, true);
    const auto transact = [&] {
      can_frame answer = {};
      const bool sent = reader.Send(request);
      for (int polls = 0; sent && polls < 100; ++polls) {
        if (reader.Take(answer)) {
          return true;
        }
        std::this_thread::sleep_for(milliseconds(1));
      }
      return false;
    };
    TimeTransactions(bench, transact, polling);
  }
  return {
      {"SDO transaction, median / 1 ms poll", "us", library.median_us, polling.median_us},
      {"SDO transaction, 99 % / 1 ms poll", "us", library.p99_us, polling.p99_us},
      {"SDO transaction, median / blocking read", "us", library.median_us, blocking.median_us},
      {"SDO transaction, 99 % / blocking read", "us", library.p99_us, blocking.p99_us},
      {"SDO transaction, CPU of the process / 1 ms poll", "us", library.cpu_us, polling.cpu_us},
      {"SDO transaction, allocations", "count", library.allocations, polling.allocations,
       Target::kValueAtMost, 0},
      {fmt::format("SDO transactions failed of {}", bench.scale.transactions), "count",
       library.failed, polling.failed, Target::kValueAtMost, 0},
  };
}

std::vector<Row> MeasureStop(const Bench& bench) {
  Figure destructor;
  Figure stop_reading;
  Figure recover;
  Figure bare;
  Figure seen;
  for (int i = 0; i < bench.scale.stops; ++i) {
    const std::uint64_t allocated = Allocations();
    auto drive = OpenDrive(bench.interface);
    seen.Add(static_cast<double>(Allocations() - allocated));
    TimeMs(recover, [&] { drive->CanRecover(); });
    TimeMs(destructor, [&] { drive.reset(); });
    drive = OpenDrive(bench.interface);
    TimeMs(stop_reading, [&] { drive->StopReading(); });
    auto reader = std::make_unique<BareReader>(bench.interface, true);
    TimeMs(bare, [&] { reader.reset(); });
  }
  const std::string of = fmt::format("of {} on a silent bus", bench.scale.stops);
  std::vector<Row> rows;
  for (const auto& [name, figure] :
       {std::pair<const char*, const Figure&>{"destructor", destructor},
        {"StopReading", stop_reading},
        {"CanRecover", recover}}) {
    rows.push_back({fmt::format("{}, median {}", name, of), "ms", figure, bare});
    rows.push_back({fmt::format("{}, longest {}", name, of), "ms", figure.At(1), bare.At(1),
                    Target::kValueAtMost, kStopLimitMs});
  }
  // Proves that the library's allocations are seen at all.
  rows.push_back({"allocations to open a drive", "count", seen, {}});
  return rows;
}

std::vector<Row> MeasureIdleCost(const Bench& bench) {
  const IdleCost library = MeasureIdle(IdleHolder::kLibrary, bench.interface, bench.scale.seconds);
  const IdleCost bare = MeasureIdle(IdleHolder::kBare, bench.interface, bench.scale.seconds);
  std::vector<Row> rows;
  const auto add = [&](const char* name, const char* unit, double of_library, double of_bare) {
    Row row = {fmt::format("idle with one open drive, {}", name), unit, {}, {}};
    row.library.Add(of_library);
    row.bare.Add(of_bare);
    rows.push_back(row);
  };
  add("CPU", "us/s", library.cpu_us_per_second, bare.cpu_us_per_second);
  add("RSS", "KiB", library.resident_kb, bare.resident_kb);
  add("RSS added by opening", "KiB", library.added_kb, bare.added_kb);
  add("threads", "count", library.threads, bare.threads);
  add("descriptors", "count", library.descriptors, bare.descriptors);
  return rows;
}
