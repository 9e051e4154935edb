// Lines of a log that tell about frames, or about the log, and hold none themselves.
#include <array>
#include <cstdint>
#include <string>

#include "candump/asc.h"
#include "candump/log_words.h"
#include "decode.h"

namespace motorctl {
namespace {

using candump::IsAscTime;
using candump::LogWords;
using candump::ParseNumber;

bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

// What `candump -e` writes below an error frame begins with one of these.
constexpr std::string_view kDetails[] = {
    "tx-timeout",
    "lost-arbitration",
    "controller-problem",
    "protocol-violation",
    "transceiver-status",
    "no-acknowledgement-on-tx",
    "bus-off",
    "bus-error",
    "restarted-after-bus-off",
    "error-counter-tx-rx",
};

bool IsDetail(std::string_view line) {
  if (line.empty() || line.front() != '\t') return false;
  line.remove_prefix(1);
  for (const std::string_view detail : kDetails) {
    if (!StartsWith(line, detail)) continue;
    return line.size() == detail.size() || (line[detail.size()] == '{' && line.back() == '}');
  }
  return false;
}

// "protocol-violation{{frame-format-error,tx-dominant-bit-error}{acknowledge-slot}}" as
// "protocol violation: frame format error, tx dominant bit error; acknowledge slot".
std::string DetailText(std::string_view detail) {
  std::string text;
  const char* separator = ": ";
  bool apart = false;
  for (const char c : detail) {
    if (c == '{' || c == '}') {
      apart = true;
      continue;
    }
    if (apart) {
      text += separator;
      separator = "; ";
      apart = false;
    }
    if (c == ',') {
      text += ", ";
    } else {
      text += c == '-' ? ' ' : c;
    }
  }
  return text;
}

// "DROPCOUNT: dropped 57 CAN frames on 'vcan0' socket (total drops 57)", of `candump -d`.
std::optional<Meaning> ParseDropCount(std::string_view line) {
  LogWords words(line);
  std::array<std::string_view, 11> word;
  for (std::string_view& each : word) each = words.Next();
  std::uint64_t dropped = 0;
  std::uint64_t total = 0;
  if (word[0] != "DROPCOUNT:" || word[1] != "dropped" || !ParseNumber(word[2], 10, dropped) ||
      word[6].size() < 3 || word[8] != "(total" || word[10].empty() || word[10].back() != ')' ||
      !ParseNumber(word[10].substr(0, word[10].size() - 1), 10, total)) {
    return std::nullopt;
  }
  const std::string_view interface = word[6].substr(1, word[6].size() - 2);
  Meaning meaning{"drop_count",
                  std::to_string(dropped) +
                      (dropped == 1 ? " frame is missing here: " : " frames are missing here: ") +
                      "candump did not read " + std::string(interface) +
                      " in time; missing so far: " + std::to_string(total)};
  meaning.fields.Add("interface", interface).Add("dropped", dropped).Add("total", total);
  return meaning;
}

// What stands around the frames of an .asc file.
bool IsAboutAsc(std::string_view line) {
  for (const std::string_view start :
       {"date ", "internal events logged", "no internal events logged", "//", "Begin Triggerblock",
        "Begin TriggerBlock", "End Triggerblock", "End TriggerBlock"}) {
    if (StartsWith(line, start)) return true;
  }
  LogWords words(line);
  if (!IsAscTime(words.Next())) return false;
  const std::string_view second = words.Next();
  return (second == "Start" && words.Next() == "of") || words.Next() == "Statistic:";
}

}  // namespace

std::optional<Meaning> ParseNote(std::string_view line, int& asc_base) {
  if (IsDetail(line)) {
    Meaning meaning{"error_detail", "of the error frame above: " + DetailText(line.substr(1))};
    meaning.fields.Add("detail", DetailText(line.substr(1)));
    return meaning;
  }
  if (auto meaning = ParseDropCount(line)) return meaning;
  LogWords words(line);
  if (words.Next() == "base") {
    const std::string_view base = words.Next();
    if ((base != "hex" && base != "dec") || words.Next() != "timestamps") return std::nullopt;
    asc_base = base == "hex" ? 16 : 10;
    return Meaning{"log_header", base == "hex" ? "numbers are hexadecimal from here on"
                                               : "numbers are decimal from here on"};
  }
  if (IsAboutAsc(line)) return Meaning{"log_header", "about the log"};
  return std::nullopt;
}

}  // namespace motorctl
