// Objects of CiA 301 and CiA 402, and the manufacturer objects that the makes' set-ups use.
#include <cstdio>
#include <optional>

#include "words.h"

namespace motorctl {
namespace {

constexpr int kAnySub = -1;

struct ObjectRow {
  const char* make;  // nullptr: every make
  std::uint16_t index;
  int sub;
  const char* name;
  Format format;
};

// First match wins. A manufacturer object whose meaning only the maker's documents tell is left
// out.
// clang-format off
constexpr ObjectRow kObjects[] = {
    {nullptr, 0x1000, 0,       "Device type",                       Format::kHex},
    {nullptr, 0x1001, 0,       "Error register",                    Format::kErrorRegister},
    {nullptr, 0x1002, 0,       "Manufacturer status register",      Format::kHex},
    {nullptr, 0x1003, 0,       "Error history: number of errors",   Format::kUnsigned},
    {nullptr, 0x1003, kAnySub, "Error history",                     Format::kHex},
    {nullptr, 0x1005, 0,       "COB-ID of SYNC",                    Format::kHex},
    {nullptr, 0x1006, 0,       "Communication cycle period",        Format::kUnsigned},
    {nullptr, 0x1008, 0,       "Manufacturer device name",          Format::kHex},
    {nullptr, 0x1009, 0,       "Manufacturer hardware version",     Format::kHex},
    {nullptr, 0x100A, 0,       "Manufacturer software version",     Format::kHex},
    {nullptr, 0x100C, 0,       "Guard time",                        Format::kMilliseconds},
    {nullptr, 0x100D, 0,       "Life time factor",                  Format::kUnsigned},
    {nullptr, 0x1010, 1,       "Store all parameters",              Format::kHex},
    {nullptr, 0x1010, kAnySub, "Store parameters",                  Format::kHex},
    {nullptr, 0x1011, 1,       "Restore all default parameters",    Format::kHex},
    {nullptr, 0x1011, kAnySub, "Restore default parameters",        Format::kHex},
    {nullptr, 0x1014, 0,       "COB-ID of emergency messages",      Format::kHex},
    {nullptr, 0x1015, 0,       "Inhibit time of emergency messages", Format::kUnsigned},
    {nullptr, 0x1016, kAnySub, "Consumer heartbeat time",           Format::kHex},
    {nullptr, 0x1017, 0,       "Producer heartbeat time",           Format::kMilliseconds},
    {nullptr, 0x1018, 0,       "Identity: number of entries",       Format::kUnsigned},
    {nullptr, 0x1018, 1,       "Identity: vendor-ID",               Format::kHex},
    {nullptr, 0x1018, 2,       "Identity: product code",            Format::kHex},
    {nullptr, 0x1018, 3,       "Identity: revision number",         Format::kHex},
    {nullptr, 0x1018, 4,       "Identity: serial number",           Format::kHex},
    {nullptr, 0x1029, kAnySub, "Error behaviour",                   Format::kUnsigned},
    {nullptr, 0x603F, 0,       "Error code",                        Format::kErrorCode},
    {nullptr, 0x6040, 0,       "Controlword",                       Format::kControlword},
    {nullptr, 0x6041, 0,       "Statusword",                        Format::kStatusword},
    {nullptr, 0x605A, 0,       "Quick stop option code",            Format::kSigned},
    {nullptr, 0x605B, 0,       "Shutdown option code",              Format::kSigned},
    {nullptr, 0x605C, 0,       "Disable operation option code",     Format::kSigned},
    {nullptr, 0x605D, 0,       "Halt option code",                  Format::kSigned},
    {nullptr, 0x605E, 0,       "Fault reaction option code",        Format::kSigned},
    {nullptr, 0x6060, 0,       "Modes of operation",                Format::kMode},
    {nullptr, 0x6061, 0,       "Modes of operation display",        Format::kMode},
    {nullptr, 0x6062, kAnySub, "Position demand value",             Format::kSigned},
    {nullptr, 0x6063, kAnySub, "Position actual internal value",    Format::kSigned},
    {nullptr, 0x6064, kAnySub, "Position actual value",             Format::kSigned},
    {nullptr, 0x606B, kAnySub, "Velocity demand value",             Format::kSigned},
    {nullptr, 0x606C, kAnySub, "Velocity actual value",             Format::kSigned},
    {nullptr, 0x6071, kAnySub, "Target torque",                     Format::kSigned},
    {nullptr, 0x6072, kAnySub, "Max torque",                        Format::kUnsigned},
    {nullptr, 0x6073, kAnySub, "Max current",                       Format::kUnsigned},
    {nullptr, 0x6077, kAnySub, "Torque actual value",               Format::kSigned},
    {nullptr, 0x6078, kAnySub, "Current actual value",              Format::kSigned},
    {nullptr, 0x6079, 0,       "DC link circuit voltage",           Format::kUnsigned},
    {nullptr, 0x607A, kAnySub, "Target position",                   Format::kSigned},
    {nullptr, 0x607E, kAnySub, "Polarity",                          Format::kHex},
    {nullptr, 0x607F, kAnySub, "Max profile velocity",              Format::kUnsigned},
    {nullptr, 0x6080, kAnySub, "Max motor speed",                   Format::kUnsigned},
    {nullptr, 0x6081, kAnySub, "Profile velocity",                  Format::kUnsigned},
    {nullptr, 0x6083, kAnySub, "Profile acceleration",              Format::kUnsigned},
    {nullptr, 0x6084, kAnySub, "Profile deceleration",              Format::kUnsigned},
    {nullptr, 0x6085, kAnySub, "Quick stop deceleration",           Format::kUnsigned},
    {nullptr, 0x608F, kAnySub, "Position encoder resolution",       Format::kUnsigned},
    {nullptr, 0x60FD, kAnySub, "Digital inputs",                    Format::kHex},
    {nullptr, 0x60FE, kAnySub, "Digital outputs",                   Format::kHex},
    {nullptr, 0x60FF, kAnySub, "Target velocity",                   Format::kVelocity},
    {nullptr, 0x6502, 0,       "Supported drive modes",             Format::kHex},
    {"zl",    0x2010, 0,       "Save all parameters",               Format::kUnsigned},
    {"zl",    0x2012, kAnySub, "Current limit",                     Format::kUnsigned},
    {"zl",    0x2014, kAnySub, "Current limit",                     Format::kUnsigned},
    {"zl",    0x2015, kAnySub, "Current limit",                     Format::kUnsigned},
    {"zl",    0x2016, kAnySub, "Current limit",                     Format::kUnsigned},
    {"hls",   0x4603, 0,       "Clear fault",                       Format::kUnsigned},
    {"amps",  0x2FF0, 9,       "Velocity command",                  Format::kSigned},
    {"kinco", 0x2010, 0x0A,    "Digital inputs",                    Format::kHex},
};
// clang-format on

struct Object {
  std::string name;
  Format format;
};

// HLS drives have their parameters at address + axis * 0x1000: the first digit tells the axis.
constexpr std::uint16_t kHlsFirstAddress = 0x2000;
constexpr ObjectRow kHlsParameters[] = {
    {"hls", 0x2002, 0, "current", Format::kUnsigned},
    {"hls", 0x242A, 0, "maximum current", Format::kUnsigned},
    {"hls", 0x2300, 0, "P gain", Format::kUnsigned},
    {"hls", 0x2301, 0, "I gain", Format::kUnsigned},
    {"hls", 0x2302, 0, "D gain", Format::kUnsigned},
};

std::optional<Object> FindHlsParameter(std::uint16_t index, std::uint8_t sub) {
  for (const ObjectRow& row : kHlsParameters) {
    if ((row.index & 0xFFF) != (index & 0xFFF) || sub != row.sub) continue;
    const unsigned axis = ((index - kHlsFirstAddress) >> 12) & 0xF;
    return Object{"Axis " + std::to_string(axis) + " " + row.name, row.format};
  }
  return std::nullopt;
}

// CiA 301: 512 records each of these kinds; the first four of each are in use here.
std::optional<Object> FindPdoObject(std::uint16_t index, std::uint8_t sub) {
  struct Kind {
    const char* direction;
    std::uint16_t first;
    bool mapping;
  };
  constexpr Kind kKinds[] = {{"RPDO", 0x1400, false},
                             {"RPDO", 0x1600, true},
                             {"TPDO", 0x1800, false},
                             {"TPDO", 0x1A00, true}};
  for (const Kind& kind : kKinds) {
    if ((index & 0xFE00) != kind.first) continue;
    const std::string pdo = kind.direction + std::to_string(index - kind.first + 1);
    if (kind.mapping) {
      if (sub == 0) return Object{pdo + " mapping: number of objects", Format::kUnsigned};
      return Object{pdo + " mapping: object " + std::to_string(sub), Format::kMappedObject};
    }
    const std::string record = pdo + " communication: ";
    switch (sub) {
      case 0:
        return Object{record + "highest sub-index", Format::kUnsigned};
      case 1:
        return Object{record + "COB-ID", Format::kHex};
      case 2:
        return Object{record + "transmission type", Format::kHex};
      case 3:
        return Object{record + "inhibit time", Format::kUnsigned};
      case 5:
        return Object{record + "event timer", Format::kUnsigned};
      case 6:
        return Object{record + "SYNC start value", Format::kUnsigned};
      default:
        return std::nullopt;
    }
  }
  return std::nullopt;
}

std::optional<Object> FindObject(std::uint16_t index, std::uint8_t sub, std::string_view make) {
  for (const ObjectRow& row : kObjects) {
    if (row.index != index || (row.sub != kAnySub && row.sub != sub)) continue;
    if (row.make != nullptr && row.make != make) continue;
    std::string name = row.name;
    // The two motors of a ZL drive are sub-indices of one object.
    if (make == "zl" && row.sub == kAnySub && index >= 0x2000) {
      name += sub == 0 ? ": number of motors" : " of motor " + std::to_string(sub);
    }
    return Object{name, row.format};
  }
  if (auto object = FindPdoObject(index, sub)) return object;
  if (make == "hls" && index >= kHlsFirstAddress) return FindHlsParameter(index, sub);
  return std::nullopt;
}

std::int64_t SignExtended(std::uint32_t raw, unsigned bytes) {
  const std::int64_t sign = std::int64_t{1} << (8 * bytes - 1);
  return (static_cast<std::int64_t>(raw) ^ sign) - sign;
}

// A ZL drive has two motors in one 32-bit word; other makes leave the upper half 0.
template <typename Text>
std::string HalvesText(std::uint32_t raw, unsigned bytes, std::string_view make, Text text) {
  std::string low = text(static_cast<std::uint16_t>(raw));
  if (bytes != 4 || (make != "zl" && raw >> 16 == 0)) return low;
  return "low word: " + low + "; high word: " + text(static_cast<std::uint16_t>(raw >> 16));
}

}  // namespace

std::string ObjectName(std::uint16_t index, std::uint8_t sub, std::string_view make) {
  const auto object = FindObject(index, sub, make);
  return object ? object->name : std::string();
}

Value FormatValue(Format format, std::uint32_t raw, unsigned bytes, std::string_view make) {
  const std::string hex = Hex(raw, static_cast<int>(2 * bytes));
  switch (format) {
    case Format::kUnsigned:
      return {raw, std::to_string(raw)};
    case Format::kHex:
      return {raw, hex};
    case Format::kSigned:
      return {SignExtended(raw, bytes), std::to_string(SignExtended(raw, bytes))};
    case Format::kVelocity: {
      const std::int64_t velocity = SignExtended(raw, bytes);
      std::string text = std::to_string(velocity);
      // Tenths of a revolution per minute, direction mirrored; the other makes' units are their
      // own.
      if (make == "hls") {
        char rpm[32];
        std::snprintf(rpm, sizeof rpm, " (%.1f rpm)", static_cast<double>(0 - velocity) / 10);
        text += rpm;
      }
      return {velocity, text};
    }
    case Format::kMilliseconds:
      return {raw, std::to_string(raw) + " ms"};
    case Format::kErrorCode:
      return {raw, hex + " " + HalvesText(raw, bytes, make, ErrorCodeText)};
    case Format::kErrorRegister:
      return {raw, hex + " " + ErrorRegisterText(static_cast<std::uint8_t>(raw))};
    case Format::kControlword:
      return {raw, hex + " " + ControlwordText(static_cast<std::uint16_t>(raw))};
    case Format::kStatusword:
      return {raw, hex + " " + HalvesText(raw, bytes, make, [make](std::uint16_t word) {
                     return StatuswordText(word, make);
                   })};
    case Format::kMode: {
      const auto mode = static_cast<std::int8_t>(raw);
      return {mode, std::to_string(mode) + " " + ModeText(mode, make)};
    }
    case Format::kMappedObject: {
      const auto index = static_cast<std::uint16_t>(raw >> 16);
      const auto sub = static_cast<std::uint8_t>(raw >> 8);
      const std::string name = ObjectName(index, sub, make);
      return {raw,
              hex + (name.empty() ? "" : " " + name) + ", " + std::to_string(raw & 0xFF) + " bits"};
    }
  }
  return {raw, hex};
}

Value ObjectValue(std::uint16_t index, std::uint8_t sub, std::uint32_t raw, unsigned bytes,
                  std::string_view make) {
  const auto object = FindObject(index, sub, make);
  if (object) return FormatValue(object->format, raw, bytes, make);
  return {raw, Hex(raw, static_cast<int>(2 * bytes)) + " (" + std::to_string(raw) + ")"};
}

}  // namespace motorctl
