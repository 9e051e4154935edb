#include "sim/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "candump/candump.h"
#include "candump/log_lines.h"
#include "sim/can_socket.h"

namespace sim {
namespace {

// A busy kernel hands the two directions over later than it stamps them, one later than the other. A
// clock that is set is set by more.
constexpr Time kDisorder{100'000};
constexpr std::size_t kFractionDigits = 6;
constexpr std::size_t kMostSecondDigits = 11;
constexpr std::size_t kShown = 60;

bool ParseDigits(std::string_view digits, std::int64_t& value) {
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  return error == std::errc() && stop == end && value >= 0 && digits.front() != '-';
}

// "1690000000.123456".
std::optional<Time> ParseTime(std::string_view text) {
  const std::size_t point = std::min(text.find('.'), text.size());
  const std::string_view seconds = text.substr(0, point);
  std::string fraction(text.substr(std::min(point + 1, text.size())));
  fraction.resize(kFractionDigits, '0');
  std::int64_t whole = 0;
  std::int64_t microseconds = 0;
  if (seconds.empty() || seconds.size() > kMostSecondDigits || !ParseDigits(seconds, whole) ||
      !ParseDigits(fraction, microseconds)) {
    return std::nullopt;
  }
  return std::chrono::seconds(whole) + Time(microseconds);
}

std::string Shown(std::string_view line) {
  std::string text(line.substr(0, kShown));
  const bool is_text = std::all_of(text.begin(), text.end(),
                                   [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); });
  return is_text ? "\"" + text + (line.size() > kShown ? "..." : "") + "\"" : "what is not text";
}

class Reader {
 public:
  Reader(std::string path, std::string interface) : interface_(std::move(interface)) {
    recording_.path = std::move(path);
  }

  void Take(std::string_view line, bool whole) {
    ++number_;
    if (line.find_first_not_of(" \t") == std::string_view::npos) return;
    const auto logged = candump::ParseLogLine(line);
    if (!logged && !whole) Refuse("the line is cut off: " + Shown(line));
    if (!logged) Refuse("no frame as candump -L -x writes it, but " + Shown(line));
    if (!Concerns(*logged)) return;
    using Kind = candump::LoggedFrame::Kind;
    if (logged->kind != Kind::kData || logged->extended) {
      ++recording_.left_out;
      return;
    }
    Add(*logged, line, whole);
  }

  Recording Finish() {
    const auto sent = [](const Recording::Line& line) { return line.from_host; };
    auto& lines = recording_.lines;
    number_ = std::max<std::size_t>(number_, 1);
    if (lines.empty() && !others_.empty()) {
      std::string names;
      for (const std::string& name : others_) names += (names.empty() ? "" : ", ") + name;
      Refuse("up to here no frame of " + interface_ + ", but of " + names);
    }
    if (lines.empty()) Refuse("up to here no frame: is the log empty?");
    if (std::none_of(lines.begin(), lines.end(), sent)) {
      Refuse(
          "up to here no frame that the host sent (T): was it recorded on another machine, or "
          "without "
          "CAP_NET_RAW?");
    }
    if (std::all_of(lines.begin(), lines.end(), sent)) {
      Refuse("up to here no frame that a drive sent (R): nothing answered this host");
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& left, const auto& right) { return left.time < right.time; });
    const Time first = lines.front().time;
    for (Recording::Line& line : lines) line.time -= first;
    return std::move(recording_);
  }

 private:
  [[noreturn]] void Refuse(const std::string& reason) const {
    throw std::runtime_error(recording_.path + ":" + std::to_string(number_) + ": " + reason);
  }

  bool Concerns(const candump::LoggedFrame& logged) {
    const std::string name(logged.interface);
    if (interface_.empty() && others_.empty()) others_.insert(name);
    if (interface_.empty() ? others_.count(name) != 0 : name == interface_) return true;
    if (interface_.empty()) {
      Refuse("a frame of " + name + ", before of " + *others_.begin() +
             ": say which one with --log-interface");
    }
    others_.insert(name);
    return false;
  }

  void Add(const candump::LoggedFrame& logged, std::string_view text, bool whole) {
    using Direction = candump::LoggedFrame::Direction;
    if (logged.direction == Direction::kUnknown) {
      Refuse(whole ? "it does not tell who sent the frame (R or T at the end): record with "
                     "'motorctl record' or 'candump -L -x'"
                   : "the line is cut off: " + Shown(text));
    }
    const std::optional<Time> time = ParseTime(logged.time);
    if (!time) Refuse("no time in seconds before the frame: " + Shown(text));
    if (recording_.lines.empty()) begin_ = *time;
    Recording::Line line;
    line.number = number_;
    line.time = *time - begin_;
    line.from_host = logged.direction == Direction::kSent;
    const Time back = latest_ - line.time;
    if (back > kDisorder) {
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%.3f", static_cast<double>(back.count()) / 1e6);
      Refuse(std::string("the clock goes back by ") + seconds +
             " s: what comes before and after is to be replayed by itself");
    }
    latest_ = std::max(latest_, line.time);
    line.frame.id = logged.id;
    line.frame.length = static_cast<std::uint8_t>(logged.length);
    std::copy_n(logged.data.begin(), logged.length, line.frame.data.begin());
    recording_.lines.push_back(line);
  }

  const std::string interface_;
  Recording recording_;
  std::set<std::string> others_;  // without `interface_`: the first one
  std::size_t number_ = 0;
  Time begin_{0};
  Time latest_{0};
};

}  // namespace

std::string FrameText(const Frame& frame) {
  candump::LoggedFrame logged;
  logged.id = frame.id;
  logged.length = frame.length;
  std::copy(frame.data.begin(), frame.data.end(), logged.data.begin());
  return candump::FrameText(logged);
}

bool operator==(const Frame& left, const Frame& right) {
  return left.id == right.id && left.length == right.length &&
         std::equal(left.data.begin(), left.data.begin() + left.length, right.data.begin());
}

Recording ReadRecording(int log, const std::string& path, const std::string& interface) {
  Reader reader(path, interface);
  candump::LogLines lines(log, [] {});
  std::string_view line;
  bool cut = false;
  while (lines.Next(line, cut)) reader.Take(line, lines.whole());
  return reader.Finish();
}

Recording ReadRecording(const std::string& path, const std::string& interface) {
  const FileDescriptor log(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  try {
    if (log.get() < 0) throw std::system_error(errno, std::generic_category());
    return ReadRecording(log.get(), path, interface);
  } catch (const std::system_error& error) {
    throw std::runtime_error(path + ": " + error.code().message());
  }
}

}  // namespace sim
