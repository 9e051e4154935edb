// The reader of what `motorctl config save` wrote: any bytes for a file.
#include <algorithm>
#include <string>

#include "config_diff.h"
#include "config_plan.h"
#include "ini_file.h"
#include "input.h"

namespace {

void RequireSense(const motorctl::Config& config) {
  fuzz::Require(config.node >= 1 && config.node <= 127, "a node");
  fuzz::Require(!config.objects.empty(), "objects");
  const auto not_before = [](const motorctl::ConfigObject& one,
                             const motorctl::ConfigObject& other) {
    return std::make_pair(one.index, one.sub) >= std::make_pair(other.index, other.sub);
  };
  fuzz::Require(std::adjacent_find(config.objects.begin(), config.objects.end(), not_before) ==
                    config.objects.end(),
                "objects in order, each once");
  for (const motorctl::ConfigObject& object : config.objects) {
    fuzz::Require(object.index >= 0x1000 && config.Find(object.index, object.sub) == &object,
                  "objects that are found");
    if (!object.type) continue;
    const unsigned size = motorctl::SizeOf(*object.type);
    fuzz::Require(size == 0 || size == object.bytes.size(), "bytes of the type");
  }
}

// What was understood can be written, and understood again.
void RequireTheSame(const motorctl::Config& config) {
  const std::string text = motorctl::WriteConfig(config);
  const motorctl::Config again = motorctl::ReadConfig(text, "again");
  fuzz::Require(motorctl::Differences(config, again, true).empty(), "the same objects");
  fuzz::Require(motorctl::WriteConfig(again) == text, "the same text");
  fuzz::Require(motorctl::PlanRestore(again, config, {}).writes.empty(), "nothing to write");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  motorctl::Config config;
  try {
    config = motorctl::ReadConfig(std::string(bytes, bytes + size), "file");
  } catch (const motorctl::FileError& error) {
    const std::string line = error.what();
    fuzz::Require(line.compare(0, 5, "file:") == 0, "the file is named");
    fuzz::Require(line.size() < 500, "the line is not long");
    fuzz::Require(std::all_of(line.begin(), line.end(),
                              [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); }),
                  "one line that can be printed");
    return 0;
  }
  RequireSense(config);
  RequireTheSame(config);
  return 0;
}
