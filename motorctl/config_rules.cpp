// What a restore leaves alone.
#include <algorithm>

#include "config_pdo.h"
#include "config_plan.h"
#include "ini_file.h"
#include "moving_objects.h"
#include "words.h"

namespace motorctl {
namespace {

struct Range {
  std::uint16_t first;
  std::uint16_t last;
  const char* why;
};

constexpr const char* kTold = "the drive's own report";
constexpr const char* kCommand = "a command";

// clang-format off
constexpr Range kNever[] = {
    {0x1000, 0x1000, "the drive's identity"},
    {0x1001, 0x1002, kTold},
    {0x1003, 0x1003, "the error history"},
    {0x1004, 0x1004, kTold},
    {0x1008, 0x100A, "the drive's identity"},
    {0x1010, 0x1011, "a command to store or to restore"},
    {0x1018, 0x1018, "the drive's identity"},
    {0x1021, 0x1022, "the drive's own EDS"},
    {0x1023, 0x1026, kCommand},
    {0x1200, 0x1200, "the channel of these very writes"},
    {0x1F22, 0x1F25, kCommand},
    {0x1F50, 0x1F5F, "the drive's program"},
    {0x1F82, 0x1F83, kCommand},
    {0x603F, 0x603F, kTold},
    {0x6041, 0x6041, kTold},
    {0x6061, 0x6064, kTold},
    {0x6069, 0x6069, kTold},
    {0x606B, 0x606C, kTold},
    {0x6074, 0x6074, kTold},
    {0x6077, 0x6079, kTold},
    {0x60B9, 0x60BD, kTold},
    {0x60F4, 0x60F4, kTold},
    {0x60FA, 0x60FA, kTold},
    {0x60FC, 0x60FE, "inputs and outputs"},
    {0x6502, 0x6502, kTold},
};
constexpr Range kBusSettings[] = {
    {0x100B, 0x100B, "the node-ID"},
};
constexpr const char* kCommandNames[] = {"save", "store", "reset", "clear"};
constexpr const char* kBusNames[] = {"node-id", "node id", "nodeid", "bit rate", "bitrate", "baud"};
// clang-format on

template <typename Words>
bool NamedAfter(const std::string& name, const Words& words) {
  const std::string lower = LowerCase(name);
  return std::any_of(std::begin(words), std::end(words),
                     [&lower](const char* word) { return lower.find(word) != std::string::npos; });
}

// By the name in the file, or by that of any make.
template <typename Words>
bool IsNamedAfter(const ConfigObject& object, const Words& words) {
  if (NamedAfter(object.name, words)) return true;
  const auto& makes = motor_driver::Makes();
  return std::any_of(makes.begin(), makes.end(), [&](const motor_driver::Make& make) {
    return NamedAfter(ObjectName(object.index, object.sub, &make), words);
  });
}

}  // namespace

std::string NeverRestored(const ConfigObject& object, const Config& config,
                          const ConfigRules& rules) {
  if (Moves(object.index)) return "it moves, or lets move";
  const std::uint16_t index = OfFirstAxis(object.index);
  for (const Range& range : kNever) {
    if (index >= range.first && index <= range.last) return range.why;
  }
  if (object.access == "ro" || object.access == "const") return "read-only";
  if (object.is_volatile) return "it changes by itself";
  const ConfigObject* const next = config.Find(object.index, 0);
  const bool has_subs =
      next != nullptr && next != &config.objects.back() && (next + 1)->index == object.index;
  if (object.sub == 0 && has_subs && !IsPdoMapping(object.index)) return "the number of entries";
  if (object.index >= 0x2000 && IsNamedAfter(object, kCommandNames)) return kCommand;
  if (rules.bus_settings) return "";
  for (const Range& range : kBusSettings) {
    if (index >= range.first && index <= range.last) return range.why;
  }
  if (object.index >= 0x2000 && IsNamedAfter(object, kBusNames)) {
    return "node-ID or bit rate; --bus-settings writes it";
  }
  return "";
}

}  // namespace motorctl
