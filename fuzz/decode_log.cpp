// The reader of logs: any bytes for a log.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "decode.h"
#include "input.h"

namespace {

struct Result {
  std::vector<std::string> lines;
  std::size_t malformed = 0;
};

Result Decode(const std::string& log, const motorctl::DecodeOptions& options) {
  static const int file = ::memfd_create("log", MFD_CLOEXEC);
  fuzz::Require(::ftruncate(file, 0) == 0 &&
                    ::pwrite(file, log.data(), log.size(), 0) == static_cast<ssize_t>(log.size()) &&
                    ::lseek(file, 0, SEEK_SET) == 0,
                "a file to read");
  Result result;
  std::string out;
  result.malformed =
      motorctl::DecodeLog(file, options, [&](const std::string& lines) { out += lines; });
  fuzz::Require(out.empty() || out.back() == '\n', "whole lines");
  for (std::size_t begin = 0; begin < out.size();) {
    const std::size_t end = out.find('\n', begin);
    result.lines.push_back(out.substr(begin, end - begin));
    begin = end + 1;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const auto& makes = motor_driver::Makes();
  const std::size_t make = bytes[0] % (makes.size() + 1);
  motorctl::DecodeOptions options;
  if (make < makes.size()) options.make = &makes[make];
  const std::string log(bytes + 1, bytes + size);

  const Result plain = Decode(log, options);
  options.json = true;
  const Result json = Decode(log, options);

  const auto breaks = std::count(log.begin(), log.end(), '\n');
  fuzz::Require(plain.lines.size() <= static_cast<std::size_t>(breaks) + 1, "a line for each line");
  fuzz::Require(plain.lines.size() == json.lines.size(), "the same lines");
  fuzz::Require(plain.malformed == json.malformed, "the same malformed lines");
  std::size_t malformed = 0;
  for (std::size_t i = 0; i < json.lines.size(); ++i) {
    const std::string& line = plain.lines[i];
    const bool shown = std::all_of(line.begin(), line.end(),
                                   [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); });
    fuzz::Require(shown, "nothing that a terminal obeys");
    const auto object = nlohmann::json::parse(json.lines[i], nullptr, false);
    fuzz::Require(object.is_object(), "JSON");
    const auto text = object.at("text").get<std::string>();
    fuzz::Require(line.size() >= text.size() && line.substr(line.size() - text.size()) == text,
                  "the same text");
    if (object.at("kind") == "malformed") ++malformed;
    if (!object.contains("frame")) continue;
    // What was understood can be written, and understood again.
    const auto frame_text = object.at("frame").get<std::string>();
    const auto frame = motorctl::ParseLogLine(frame_text);
    fuzz::Require(frame && motorctl::FrameText(*frame) == frame_text, "the same frame");
  }
  fuzz::Require(malformed == json.malformed, "the number of malformed lines");
  return 0;
}
