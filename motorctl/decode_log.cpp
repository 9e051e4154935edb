// Logs of candump, line by line.
#include <algorithm>
#include <cstdint>
#include <iterator>

#include "decode.h"
#include "log_lines.h"

namespace motorctl {
namespace {

constexpr std::size_t kTextColumn = 48;
constexpr std::size_t kOutputBlock = std::size_t{1} << 16;

// What a terminal would obey, or JSON refuse, as "\x1B".
void AppendPrintable(std::string& out, std::string_view text) {
  const auto printable = [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); };
  if (std::all_of(text.begin(), text.end(), printable)) {
    out += text;
    return;
  }
  for (const char c : text) {
    if (printable(c)) {
      out += c;
    } else {
      out.append("\\x").append(Hex(static_cast<unsigned char>(c), 2), 2);
    }
  }
}

std::string Printable(std::string_view text) {
  std::string result;
  AppendPrintable(result, text);
  return result;
}

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

class LogDecoder {
 public:
  LogDecoder(const DecodeOptions& options, std::string& out) : options_(options), out_(out) {}

  void Decode(std::string_view line, bool cut) {
    if (line.empty()) return;
    if (cut) {
      AddMalformed(line, "line too long");
      return;
    }
    std::string_view plain = line;
    if (line.find('\x1B') != std::string_view::npos) {
      RemoveColours(line, coloured_);
      plain = coloured_;
    }
    // Which candump writes below errors that it has no words for, and between colours.
    if (plain.find_first_not_of(" \t") == std::string_view::npos) return;
    if (const auto frame = ParseLogLine(plain, asc_base_)) {
      AddFrame(plain, *frame);
    } else if (const auto note = ParseNote(Printable(plain), asc_base_)) {
      AddNote(plain, *note);
    } else {
      AddMalformed(line, "no frame in this line");
    }
  }

  std::size_t malformed() const { return malformed_; }

 private:
  void AddFrame(std::string_view line, const LoggedFrame& frame) {
    const auto segment = blocks_.Decode(frame);
    const Meaning meaning = segment ? *segment : DecodeFrame(frame, options_.make);
    if (!options_.json) {
      AddPlain(line, meaning.text);
      return;
    }
    Fields fields;
    fields.Add("time", Printable(frame.time))
        .Add("interface", Printable(frame.interface))
        .Add("frame", FrameText(frame))
        .Add("id", frame.id)
        .Add("kind", meaning.kind)
        .Append(meaning.fields)
        .Add("text", meaning.text);
    AddJson(fields);
  }

  void AddNote(std::string_view line, const Meaning& meaning) {
    if (!options_.json) {
      AddPlain(line, meaning.text);
      return;
    }
    Fields fields;
    fields.Add("kind", meaning.kind)
        .Add("line", Printable(line))
        .Append(meaning.fields)
        .Add("text", meaning.text);
    AddJson(fields);
  }

  void AddMalformed(std::string_view line, const std::string& reason) {
    ++malformed_;
    AddNote(line, {"malformed", options_.json ? reason : "??? " + reason});
  }

  void AddPlain(std::string_view line, const std::string& text) {
    const std::size_t begin = out_.size();
    AppendPrintable(out_, line);
    const std::size_t shown = out_.size() - begin;
    out_.append(std::max(kTextColumn, shown + 2) - shown, ' ').append(text).append("\n");
  }

  void AddJson(const Fields& fields) { out_.append("{").append(fields.text()).append("}\n"); }

  const DecodeOptions options_;
  std::string& out_;
  std::string coloured_;
  BlockTransfers blocks_;
  int asc_base_ = 16;
  std::size_t malformed_ = 0;
};

}  // namespace

std::size_t DecodeLog(int log, const DecodeOptions& options,
                      const std::function<void(const std::string&)>& write) {
  std::string out;
  const auto flush = [&] {
    if (!out.empty()) write(out);
    out.clear();
  };
  LogDecoder decoder(options, out);
  LogLines lines(log, flush);
  std::string_view line;
  bool cut = false;
  while (lines.Next(line, cut)) {
    decoder.Decode(line, cut);
    if (out.size() >= kOutputBlock) flush();
  }
  flush();
  return decoder.malformed();
}

}  // namespace motorctl
