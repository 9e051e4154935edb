// Logs of candump, line by line.
#include <algorithm>
#include <cstdint>

#include "candump/log_lines.h"
#include "decode.h"
#include "log_entries.h"
#include "printable.h"

namespace motorctl {
namespace {

constexpr std::size_t kTextColumn = 48;
constexpr std::size_t kOutputBlock = std::size_t{1} << 16;

class LogDecoder {
 public:
  LogDecoder(const DecodeOptions& options, std::string& out) : options_(options), out_(out) {}

  void Decode(const LogEntry& entry) {
    if (entry.frame) {
      AddFrame(entry.line, *entry.frame);
    } else if (entry.note) {
      AddNote(entry.line, *entry.note);
    } else {
      AddMalformed(entry.line, entry.cut ? "line too long" : "no frame in this line");
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
  BlockTransfers blocks_;
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
  LogEntries entries(log, flush);
  LogEntry entry;
  while (entries.Next(entry)) {
    decoder.Decode(entry);
    if (out.size() >= kOutputBlock) flush();
  }
  flush();
  return decoder.malformed();
}

}  // namespace motorctl
