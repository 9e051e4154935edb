// Logs of candump, line by line.
#include <algorithm>
#include <cstdint>

#include "decode.h"

namespace motorctl {
namespace {

// The longest line of a frame that candump writes has some 300 characters.
constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kTextColumn = 48;

// False at the end. What goes beyond the longest line is dropped, so that a file without line
// breaks does not fill the memory.
bool ReadLine(std::istream& log, std::string& line, bool& cut) {
  line.clear();
  cut = false;
  std::streambuf& buffer = *log.rdbuf();
  for (;;) {
    const int c = buffer.sbumpc();
    if (c == std::char_traits<char>::eof()) return !line.empty();
    if (c == '\n') break;
    cut = cut || line.size() == kLongestLine;
    if (!cut) line += static_cast<char>(c);
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

// What a terminal would obey, or JSON refuse, as "\x1B".
std::string Printable(const std::string& line) {
  std::string text;
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\t' || (byte >= 0x20 && byte < 0x7F)) {
      text += c;
    } else {
      text += "\\x" + Hex(byte, 2).substr(2);
    }
  }
  return text;
}

std::string PlainLine(const std::string& line, const std::string& text) {
  const std::size_t width = std::max(kTextColumn, line.size() + 2);
  return line + std::string(width - line.size(), ' ') + text;
}

std::string JsonLine(const LoggedFrame& frame, const Meaning& meaning) {
  nlohmann::ordered_json object;
  object["time"] = Printable(frame.time);
  object["interface"] = Printable(frame.interface);
  object["frame"] = FrameText(frame);
  object["id"] = frame.id;
  object["kind"] = meaning.kind;
  object.update(meaning.fields);
  object["text"] = meaning.text;
  return object.dump();
}

}  // namespace

std::size_t DecodeLog(std::istream& log, const DecodeOptions& options,
                      const std::function<void(const std::string&)>& write_line) {
  std::size_t malformed = 0;
  std::string line;
  bool cut = false;
  while (ReadLine(log, line, cut)) {
    if (line.empty()) continue;
    const auto frame = cut ? std::nullopt : ParseLogLine(line);
    const std::string shown = Printable(line);
    if (frame) {
      const Meaning meaning = DecodeFrame(*frame, options.make);
      write_line(options.json ? JsonLine(*frame, meaning) : PlainLine(shown, meaning.text));
      continue;
    }
    ++malformed;
    const char* const reason = cut ? "line too long" : "no frame in this line";
    if (options.json) {
      const nlohmann::ordered_json object = {
          {"kind", "malformed"}, {"line", shown}, {"text", reason}};
      write_line(object.dump());
    } else {
      write_line(PlainLine(shown, std::string("??? ") + reason));
    }
  }
  return malformed;
}

}  // namespace motorctl
