#include "log_entries.h"

#include <utility>

#include "printable.h"

namespace motorctl {
namespace {

// Colours (-c) are "\x1B[...m".
void RemoveColours(std::string_view line, std::string& plain) {
  plain.clear();
  for (;;) {
    const std::size_t escape = line.find("\x1B[");
    const std::size_t end = escape == std::string_view::npos
                                ? escape
                                : line.find_first_not_of("0123456789;", escape + 2);
    if (end == std::string_view::npos || line[end] != 'm') break;
    plain += line.substr(0, escape);
    line.remove_prefix(end + 1);
  }
  plain += line;
}

}  // namespace

LogEntries::LogEntries(int log, std::function<void()> idle) : lines_(log, std::move(idle)) {}

bool LogEntries::Next(LogEntry& entry) {
  do {
    if (!lines_.Next(entry.line, entry.cut)) return false;
    ++number_;
  } while (!Parse(entry));
  entry.number = number_;
  return true;
}

bool LogEntries::Parse(LogEntry& entry) {
  entry.frame.reset();
  entry.note.reset();
  if (entry.line.empty()) return false;
  if (entry.cut) return true;
  std::string_view plain = entry.line;
  if (plain.find('\x1B') != std::string_view::npos) {
    RemoveColours(plain, plain_);
    plain = plain_;
  }
  // Which candump writes below errors that it has no words for, and between colours.
  if (plain.find_first_not_of(" \t") == std::string_view::npos) return false;
  entry.frame = ParseLogLine(plain, asc_base_);
  if (!entry.frame) entry.note = ParseNote(Printable(plain), asc_base_);
  if (!entry.malformed()) entry.line = plain;
  return true;
}

}  // namespace motorctl
