#include "report_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>

#include "log_entries.h"
#include "printable.h"

namespace motorctl {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kNoTime = -1;
constexpr std::size_t kMostInterfaces = 64;
constexpr std::size_t kMostNotes = 30;
constexpr std::size_t kMostQuoted = 5;  // of the lines that hold no frame
constexpr std::size_t kQuoted = 60;     // of the text of such a line
// A clock that was set. Frames of several sockets change places by less.
constexpr std::int64_t kJump = kSecond / 10;

std::string Quoted(std::string_view line) {
  const std::string text = Printable(line.substr(0, kQuoted));
  return "\"" + text + (line.size() > kQuoted ? "...\"" : "\"");
}

std::string Count(std::size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

struct Interface {
  std::string name;
  std::size_t frames = 0;
};

class LogLoader {
 public:
  explicit LogLoader(const std::string& path) { log_.path = path; }

  void Read(int file) {
    LogEntries entries(file, [] {});
    LogEntry entry;
    while (entries.Next(entry)) {
      lines_ = entry.number;
      if (entry.frame) {
        Add(entry.number, *entry.frame);
      } else if (entry.note) {
        if (entry.note->kind == "drop_count") AddNote(entry.number, entry.note->text);
      } else {
        AddMalformed(entry);
      }
    }
  }

  ReportLog Finish(const std::string& interface) {
    RefuseWithoutFrames();
    Choose(interface);
    SetTimes();
    JudgeDirections();
    return std::move(log_);
  }

 private:
  void AddNote(std::size_t line, const std::string& text) {
    if (log_.notes.size() == kMostNotes) {
      log_.notes.emplace_back("more of this kind are not listed");
    }
    if (log_.notes.size() > kMostNotes) return;
    log_.notes.push_back("line " + std::to_string(line) + ": " + text);
  }

  void AddMalformed(const LogEntry& entry) {
    if (malformed_ == 0) {
      first_malformed_ = Quoted(entry.line);
      first_malformed_line_ = entry.number;
      binary_ = std::any_of(entry.line.begin(), entry.line.end(), [](unsigned char c) {
        return (c < 0x20 && c != '\t' && c != '\x1B') || c == 0x7F;
      });
    }
    if (++malformed_ > kMostQuoted) return;
    AddNote(entry.number, "no frame in it, left out: " + Quoted(entry.line));
  }

  void Add(std::size_t line, const LoggedFrame& frame) {
    const std::optional<std::uint8_t> interface = IndexOf(frame.interface);
    if (!interface) {
      if (others_++ == 0) AddNote(line, "one interface too many, left out from here on");
      return;
    }
    ++interfaces_[*interface].frames;
    KeptFrame kept;
    kept.nanoseconds = kNoTime;
    LogClock clock = log_.clock;
    std::int64_t time = 0;
    if (ParseLogTime(frame.time, time, clock)) {
      if (log_.clock == LogClock::kNone) log_.clock = clock;
      if (log_.clock == clock) kept.nanoseconds = time;
    }
    kept.id = frame.id;
    kept.line = static_cast<std::uint32_t>(line);
    kept.kind = frame.kind;
    kept.direction = frame.direction;
    kept.extended = frame.extended;
    kept.interface = *interface;
    if (frame.kind != LoggedFrame::Kind::kFd) {
      kept.length = static_cast<std::uint8_t>(frame.length);
      std::copy_n(frame.data.begin(), frame.length, kept.data);
    }
    log_.frames.push_back(kept);
  }

  std::optional<std::uint8_t> IndexOf(std::string_view name) {
    for (std::size_t i = 0; i < interfaces_.size(); ++i) {
      if (interfaces_[i].name == name) return static_cast<std::uint8_t>(i);
    }
    if (interfaces_.size() == kMostInterfaces) return std::nullopt;
    interfaces_.push_back({std::string(name), 0});
    return static_cast<std::uint8_t>(interfaces_.size() - 1);
  }

  void RefuseWithoutFrames() {
    if (!log_.frames.empty()) {
      if (malformed_ > kMostQuoted) {
        log_.notes.push_back(Count(malformed_ - kMostQuoted, "more line") +
                             " without a frame, left out; motorctl decode marks them");
      }
      return;
    }
    if (malformed_ == 0) {
      throw LogUnreadable(log_.path + (lines_ == 0 ? ": is empty: nothing was recorded"
                                                   : ": holds no frame: nothing was recorded"));
    }
    const std::string place = log_.path + ":" + std::to_string(first_malformed_line_) + ": ";
    if (binary_) {
      throw LogUnreadable(place +
                          "is not text; what is read is a folder of motorctl record, a log of "
                          "candump (-L) or an .asc file");
    }
    throw LogUnreadable(place + "no frame in it, nor in the other lines: " + first_malformed_ +
                        "; what is read is a folder of motorctl record, a log of candump (-L) or "
                        "an .asc file");
  }

  std::string InterfaceNames() const {
    std::string names;
    for (const Interface& interface : interfaces_) {
      names += (names.empty() ? "" : ", ") +
               (interface.name.empty() ? std::string("none") : Printable(interface.name)) + " (" +
               Count(interface.frames, "frame") + ")";
    }
    return names;
  }

  // Two buses at once make no sense.
  void Choose(const std::string& wanted) {
    const auto chosen =
        wanted.empty()
            ? std::max_element(interfaces_.begin(), interfaces_.end(),
                               [](const Interface& left, const Interface& right) {
                                 return left.frames < right.frames;
                               })
            : std::find_if(interfaces_.begin(), interfaces_.end(),
                           [&](const Interface& interface) { return interface.name == wanted; });
    if (chosen == interfaces_.end()) {
      throw LogUnreadable(log_.path + ": no frame of " + wanted +
                          ", which --interface names; there are: " + InterfaceNames());
    }
    log_.interface = Printable(chosen->name);
    if (interfaces_.size() == 1) return;
    const auto index = static_cast<std::uint8_t>(chosen - interfaces_.begin());
    log_.frames.erase(
        std::remove_if(log_.frames.begin(), log_.frames.end(),
                       [index](const KeptFrame& frame) { return frame.interface != index; }),
        log_.frames.end());
    log_.notes.push_back("several interfaces: " + InterfaceNames() + "; this is about " +
                         (log_.interface.empty() ? "those without one" : log_.interface) +
                         ", --interface names another");
  }

  // `candump -t d` writes how long after the frame before each came.
  bool HoldsDifferences() const {
    std::size_t back = 0;
    std::int64_t last = 0;
    for (const KeptFrame& frame : log_.frames) {
      if (frame.nanoseconds == kNoTime) continue;
      if (frame.nanoseconds < last) ++back;
      last = frame.nanoseconds;
    }
    return log_.clock == LogClock::kRelative && back > log_.frames.size() / 4;
  }

  void SetTimes() {
    const bool differences = HoldsDifferences();
    if (differences) {
      log_.notes.emplace_back("its times are those between frames (candump -t d): added up");
    }
    if (log_.clock == LogClock::kNone) {
      log_.notes.emplace_back(
          "lines without time: silences, late answers, measured speeds and bus load are unknown; "
          "record with candump -L");
    }
    const auto timed =
        std::find_if(log_.frames.begin(), log_.frames.end(),
                     [](const KeptFrame& frame) { return frame.nanoseconds != kNoTime; });
    std::int64_t last = differences || timed == log_.frames.end() ? 0 : timed->nanoseconds;
    std::int64_t back = 0;
    for (KeptFrame& frame : log_.frames) {
      log_.knows_direction =
          log_.knows_direction || frame.direction != LoggedFrame::Direction::kUnknown;
      log_.has_sent = log_.has_sent || frame.direction == LoggedFrame::Direction::kSent;
      std::int64_t time = frame.nanoseconds + back;
      if (frame.nanoseconds == kNoTime) {
        time = last;
      } else if (differences) {
        time = last + frame.nanoseconds;
      } else if (time < last - kJump) {
        back = std::min(back + last - time, kLatestLogTime);
        log_.jumps.push_back({last, back});
        AddNote(frame.line, "the clock jumps back by " + SecondsText(last - time) +
                                " s; times go on without the jump");
        time = last;
      }
      last = std::min(std::max(time, last), kLatestLogTime);
      frame.nanoseconds = last;
    }
  }

  // Commands are those of a host, and a host may keep what it sends from its own machine.
  void JudgeDirections() {
    if (!log_.knows_direction) {
      log_.notes.emplace_back(
          "no line tells who sent it (candump -x, motorctl record): a host on the machine that "
          "recorded may be missing, and its commands with it");
    } else if (!log_.has_sent) {
      log_.notes.emplace_back(
          "nothing that the recording machine sent is in it: if the host ran there, its commands "
          "are missing; motorctl record, with CAP_NET_RAW, has them");
    }
  }

  ReportLog log_;
  std::vector<Interface> interfaces_;
  std::size_t lines_ = 0;
  std::size_t malformed_ = 0;
  std::size_t others_ = 0;
  std::string first_malformed_;
  std::size_t first_malformed_line_ = 0;
  bool binary_ = false;
};

}  // namespace

LoggedFrame Logged(const KeptFrame& frame) {
  LoggedFrame logged;
  logged.kind = frame.kind;
  logged.direction = frame.direction;
  logged.extended = frame.extended;
  logged.id = frame.id;
  logged.length = frame.length;
  std::copy_n(frame.data, frame.length, logged.data.begin());
  return logged;
}

std::int64_t ReportLog::Shown(std::int64_t nanoseconds) const {
  const auto after =
      std::upper_bound(jumps.begin(), jumps.end(), nanoseconds,
                       [](std::int64_t time, const Jump& jump) { return time < jump.at; });
  return after == jumps.begin() ? nanoseconds : nanoseconds - (after - 1)->back;
}

ReportLog ReadReportLog(const std::string& path, const std::string& interface) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    throw LogUnreadable(path + ": " + std::generic_category().message(errno) +
                        "; name a folder of motorctl record, or a log");
  }
  const std::unique_ptr<const int, void (*)(const int*)> closer(
      &file, [](const int* descriptor) { ::close(*descriptor); });
  LogLoader loader(path);
  try {
    loader.Read(file);
  } catch (const std::system_error& error) {
    throw LogUnreadable(path + ": " + error.code().message());
  }
  return loader.Finish(interface);
}

}  // namespace motorctl
