// A log in memory: what it tells is found by going through it more than once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

#include "candump/logged_frame.h"
#include "log_time.h"
#include "printable.h"

namespace motorctl {

using candump::LoggedFrame;

// Nothing of the log can be reported. One line that says why, and what to do.
class LogUnreadable : public std::runtime_error {
 public:
  // Names of files may be anything.
  explicit LogUnreadable(const std::string& text) : std::runtime_error(Visible(text)) {}
};

// As small as a frame can be kept: a log has a million of them.
struct KeptFrame {
  std::int64_t nanoseconds = 0;  // see ReportLog::frames
  std::uint32_t id = 0;
  std::uint32_t line = 0;
  std::uint8_t data[8] = {};  // of CAN FD: none
  LoggedFrame::Kind kind = LoggedFrame::Kind::kData;
  LoggedFrame::Direction direction = LoggedFrame::Direction::kUnknown;
  bool extended = false;
  std::uint8_t length = 0;
  std::uint8_t interface = 0;
  bool segment = false;  // of an SDO block transfer, and no command
};
static_assert(sizeof(KeptFrame) == 32);

LoggedFrame Logged(const KeptFrame& frame);

struct ReportLog {
  std::string path;
  std::string interface;  // the one that is reported; empty where lines name none
  LogClock clock = LogClock::kNone;
  // Times go on where the clock of the log jumps back: they never decrease. Without a clock: 0.
  std::deque<KeptFrame> frames;
  bool knows_direction = false;
  bool has_sent = false;
  // What could not be read, or has to be known: one line each.
  std::vector<std::string> notes;

  std::int64_t begin() const { return frames.front().nanoseconds; }
  std::int64_t end() const { return frames.back().nanoseconds; }
  // What the clock of the log showed.
  std::int64_t Shown(std::int64_t nanoseconds) const;

  struct Jump {
    std::int64_t at = 0;
    std::int64_t back = 0;
  };
  std::vector<Jump> jumps;
};

// `interface`: the one to report; empty: the one that has most frames. Throws LogUnreadable.
ReportLog ReadReportLog(const std::string& path, const std::string& interface);

}  // namespace motorctl
