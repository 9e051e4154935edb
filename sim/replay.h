#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/host_requests.h"
#include "sim/host_states.h"
#include "sim/recording.h"

namespace sim {

/// The host did something else than the recorded one: "bus.log:12: expected 601#..., came 601#...".
class Divergence : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The drives of a recording, for a host that is to do what the recorded one did.
///
/// Answers are given in the order of the requests, after the recorded time. Everything else follows
/// a clock that runs through the recording from the latest frame of the host that had to come, and
/// stands still at the next one until that has come: so it keeps in step with a host that is a bit
/// slower or faster. Meanwhile the drives repeat the heartbeats and PDOs that they send all the time,
/// or the host would take them for gone.
///
/// Has no clock and no bus of its own. Times count from the begin of the replay.
class Replay {
 public:
  /// `patience`: how long a frame of the host may be overdue.
  Replay(Recording recording, Time patience);

  const Recording& recording() const { return recording_; }

  /// A frame of the host. Throws Divergence, as Advance does.
  void Hear(const Frame& frame, Time now);

  /// Hands out what the drives send by now.
  void Advance(Time now, const FrameSink& send);

  /// When there is something to do at the latest.
  Time NextEvent(Time now) const;

  /// Everything has come and been sent. Throws Divergence when the host ended before.
  bool Over(Time now) const;

 private:
  /// What a drive sends all the time, while the clock stands still.
  struct Cycle {
    std::size_t latest = kNothing;
    Time interval{0};
    bool goes_on = false;  // in the recording, too
    Time sent{0};
  };

  Time TimeOf(std::size_t index) const { return recording_.lines[index].time; }
  std::size_t Limit() const;
  Time ClockAt(Time now) const;
  bool StandsStill(Time now) const;
  void StepTo(std::size_t index, Time now, Time clock);
  void Answer(std::size_t request, Time now);
  void Send(std::size_t index, Time now, const FrameSink& send);
  void RepeatCycles(Time now, const FrameSink& send);
  [[noreturn]] void Diverge(std::size_t expected, const std::string& came) const;
  [[noreturn]] void Diverge(const HostStates::Difference& difference) const;

  const Recording recording_;
  const Time patience_;
  HostRequests requests_;
  HostStates states_;

  std::map<std::size_t, std::vector<std::size_t>> answers_;  // of each request
  std::vector<bool> is_answer_;
  std::vector<std::size_t> next_alike_;  // of the same identifier, kNothing for the last
  std::multimap<Time, std::size_t> to_answer_;

  bool begun_ = false;  // the first frame has come
  Time anchor_now_{0};
  Time anchor_clock_{0};
  std::size_t position_ = 0;  // before it everything was sent
  std::map<std::uint32_t, Cycle> cycles_;
};

}  // namespace sim
