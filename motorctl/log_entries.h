// The entries of a log: its lines, and the frames or notes that they hold.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "candump.h"
#include "decode.h"
#include "log_lines.h"

namespace motorctl {

// What a terminal would obey, or JSON refuse, as "\x1B".
void AppendPrintable(std::string& out, std::string_view text);
std::string Printable(std::string_view text);

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

  LogLines lines_;
  std::string plain_;
  int asc_base_ = 16;
  std::size_t number_ = 0;
};

}  // namespace motorctl
