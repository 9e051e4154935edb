// Recordings as a few lines, and hosts that are like the recorded one or are not. Without a bus: time is
// what the test says it is.
#pragma once

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "sim/replay.h"
#include "tests/sim/candump_text.h"
#include "tests/sim/recorded.h"

inline constexpr auto kPatience = std::chrono::seconds(2);

// "601#... T" at these milliseconds of the recording.
struct At {
  int ms;
  std::string text;
};

inline std::string Log(const std::vector<At>& lines) {
  std::string log;
  for (const At& line : lines) {
    char time[32];
    std::snprintf(time, sizeof time, "(%d.%06d) can0 ", 1000 + line.ms / 1000,
                  line.ms % 1000 * 1000);
    log += time + line.text + "\n";
  }
  return log;
}

// Every 10 ms of a stretch.
inline void Hold(std::vector<At>& lines, int from_ms, int to_ms, const std::string& text) {
  for (int ms = from_ms; ms < to_ms; ms += 10) lines.push_back({ms, text});
}

class ReplayTest : public testing::Test {
 protected:
  void Start(const std::vector<At>& lines, sim::Time patience = kPatience) {
    replay_.emplace(Recorded(Log(lines)), patience);
    now_ms_ = 0;
    sent_.clear();
  }

  // Lets time pass, and notes "12 581#..." for everything that the drives send.
  void Until(int ms) {
    for (; now_ms_ <= ms; ++now_ms_) {
      replay_->Advance(Now(), [this](const sim::Frame& frame) {
        sent_.push_back(std::to_string(now_ms_) + " " + ToText(frame));
      });
    }
    --now_ms_;
  }
  void Hear(int ms, const std::string& text) {
    Until(ms);
    replay_->Hear(FromText(text), Now());
  }
  // Sends the same again and again.
  void HearAll(int from_ms, int to_ms, const std::string& text) {
    for (int ms = from_ms; ms < to_ms; ms += 10) Hear(ms, text);
  }

  template <typename Deed>
  std::string Complaint(Deed deed) {
    try {
      deed();
    } catch (const sim::Divergence& divergence) {
      return divergence.what();
    }
    return "none";
  }

  bool Over() const { return replay_->Over(Now()); }
  sim::Time Now() const { return std::chrono::milliseconds(now_ms_); }

  std::optional<sim::Replay> replay_;
  int now_ms_ = 0;
  std::vector<std::string> sent_;
};

using Sent = std::vector<std::string>;
