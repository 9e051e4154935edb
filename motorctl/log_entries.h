// The entries of a log: its lines, and the frames or notes that they hold.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "candump/log_lines.h"
#include "decode.h"

namespace motorctl {

// Parts of the line last read.
struct LogEntry {
  std::size_t number = 0;  // of the line, from 1
  std::string_view line;   // without colours where it holds a frame or a note
  std::optional<LoggedFrame> frame;
  std::optional<Meaning> note;
  bool cut = false;  // the line is too long, and neither frame nor note

  bool malformed() const { return !frame && !note; }
};

class LogEntries {
 public:
  // As LogLines.
  LogEntries(int log, std::function<void()> idle);

  // False at the end. Lines without anything in them are passed over. Throws std::system_error.
  bool Next(LogEntry& entry);

 private:
  bool Parse(LogEntry& entry);

  candump::LogLines lines_;
  std::string plain_;
  int asc_base_ = 16;
  std::size_t number_ = 0;
};

}  // namespace motorctl
