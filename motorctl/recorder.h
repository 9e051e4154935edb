// Keeps the last of a bus, and has it written when something happens.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "bus_tap.h"
#include "context.h"
#include "continuous_log.h"
#include "frame_ring.h"
#include "incident.h"
#include "lasting_output.h"
#include "record_control.h"
#include "trigger_watch.h"

namespace motorctl {

struct RecordPlan {
  std::string directory = ".";
  double seconds = 60;  // before the trigger
  double after = 5;     // seconds
  std::size_t memory_mb = 32;
  RecordLimits limits;
  std::optional<LogLimits> continuous;  // all frames, in files
};

class Recorder {
 public:
  Recorder(const Context& context, const RecordPlan& plan);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Until a signal ends it.
  int Run();

 private:
  using Clock = TriggerWatch::Clock;

  struct Gathering {
    BusEvent trigger;
    Clock::time_point due;
  };

  void Await();
  void TakeSignals();
  void TakeFrames();
  void Keep(const BusFrame& frame);
  void WatchInterface();
  void KeepMark();
  void Hear(const BusEvent& event);
  void Ask(const std::string& text);
  void StartWriting();
  void FinishLog();
  void TakeOutcome();
  void Report(const std::string& outcome);

  const Context& context_;
  const RecordPlan plan_;
  const std::string interface_;
  LastingOutput output_;
  IncidentStore store_;
  RecordControl control_;
  BusTap tap_;
  // Before the frames: its process would keep a copy of their memory.
  const std::unique_ptr<ContinuousLog> log_;
  FrameRing frames_;
  TriggerWatch watch_;
  int signals_ = -1;
  bool ended_ = false;

  bool busy_ = false;  // frames have come in the last round
  bool lost_interface_ = false;
  Clock::time_point now_;
  Clock::time_point looked_;
  // How many frames there had been, a mark each second: what is old does not depend on a clock that
  // is set.
  std::deque<std::pair<Clock::time_point, std::uint64_t>> marks_;

  std::deque<std::pair<Clock::time_point, BusEvent>> events_;  // and when they were heard
  std::size_t unlisted_ = 0;
  std::map<std::pair<std::string, int>, Clock::time_point> last_;
  std::optional<Gathering> gathering_;

  // The process that writes.
  pid_t writer_ = -1;
  int outcome_ = -1;
  std::string trigger_text_;
};

}  // namespace motorctl
