#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "sim/host_requests.h"
#include "sim/recording.h"

namespace sim {

/// What a host sends all the time: PDOs, heartbeats, SYNC. Not how often counts, but what it says for
/// long enough: every content that the recorded host held has to come, in that order, and no other is
/// to be held. What lies between, the steps of a ramp, depends on when the host hears what.
class HostStates {
 public:
  explicit HostStates(const Recording& recording);

  bool Know(std::uint32_t id) const { return identifiers_.count(id) != 0; }

  /// `clock`: the time in the recording. Returns the line that it is when it had to come; kNothing
  /// when it is one of many.
  std::size_t Hear(const Frame& frame, Time now, Time clock);

  /// What was not a line of the recording.
  struct Difference {
    std::size_t expected = kNothing;  ///< kNothing: there is none
    Frame held;
    bool silent = false;  ///< nothing was held: nothing comes any more
  };
  /// To be called again and again. `matched`: as from Hear, for each that came meanwhile. `patience`:
  /// who sends all the time does not pause for so long.
  Difference Look(Time now, Time clock, Time patience, std::vector<std::size_t>& matched);
  /// The first that is missing at the end of the recording, by more than `patience`.
  Difference LookAtEnd(Time end, Time patience) const;

  /// The earliest that has to come; kNothing at the end.
  std::size_t Next() const;

 private:
  struct Run {
    std::size_t first;  // its first line
    Time held;
    bool last;
    bool MustCome() const;
    bool MayBeHeld() const;
  };
  struct Identifier {
    std::vector<std::size_t> lines;
    std::vector<Run> runs;
    std::size_t begin = 0;  // of the runs that may be the one now
    std::size_t due = 0;    // of the runs, the next that must come
    bool heard = false;
    Frame now;
    Time since{0};       // it is sent
    bool known = false;  // it is one of the runs
    Time latest{0};
    std::size_t missed = 0;  // of the lines, the first after what came last
  };

  const Frame& FrameOf(const Run& run) const { return recording_.lines[run.first].frame; }
  void AddRuns(Identifier& identifier, Time end) const;
  static void FindDue(Identifier& identifier, std::size_t begin);
  std::size_t Match(Identifier& identifier, Time clock) const;
  bool FindHeld(Identifier& identifier, std::size_t& matched) const;
  std::size_t Missed(const Identifier& identifier, Time clock, Time longer) const;

  const Recording& recording_;
  std::map<std::uint32_t, Identifier> identifiers_;
};

}  // namespace sim
