// Objects of CiA 301 and CiA 402. Those of the makers stand in the table of makes, and before all
// others are those of a data sheet.
#include <cstdio>
#include <optional>

#include "data_sheet.h"
#include "sheet_values.h"
#include "words.h"

namespace motorctl {
namespace {

using motor_driver::NamedObject;

constexpr int kAnySub = -1;

struct ObjectRow {
  std::uint16_t index;
  int sub;
  const char* name;
  Format format;
};

// First match wins.
// clang-format off
constexpr ObjectRow kObjects[] = {
    {0x1000, 0,       "Device type",                       Format::kHex},
    {0x1001, 0,       "Error register",                    Format::kErrorRegister},
    {0x1002, 0,       "Manufacturer status register",      Format::kHex},
    {0x1003, 0,       "Error history: number of errors",   Format::kUnsigned},
    {0x1003, kAnySub, "Error history",                     Format::kHex},
    {0x1005, 0,       "COB-ID of SYNC",                    Format::kHex},
    {0x1006, 0,       "Communication cycle period",        Format::kUnsigned},
    {0x1008, 0,       "Manufacturer device name",          Format::kText},
    {0x1009, 0,       "Manufacturer hardware version",     Format::kText},
    {0x100A, 0,       "Manufacturer software version",     Format::kText},
    {0x100C, 0,       "Guard time",                        Format::kMilliseconds},
    {0x100D, 0,       "Life time factor",                  Format::kUnsigned},
    {0x1010, 1,       "Store all parameters",              Format::kHex},
    {0x1010, kAnySub, "Store parameters",                  Format::kHex},
    {0x1011, 1,       "Restore all default parameters",    Format::kHex},
    {0x1011, kAnySub, "Restore default parameters",        Format::kHex},
    {0x1014, 0,       "COB-ID of emergency messages",      Format::kHex},
    {0x1015, 0,       "Inhibit time of emergency messages", Format::kUnsigned},
    {0x1016, kAnySub, "Consumer heartbeat time",           Format::kHex},
    {0x1017, 0,       "Producer heartbeat time",           Format::kMilliseconds},
    {0x1018, 0,       "Identity: number of entries",       Format::kUnsigned},
    {0x1018, 1,       "Identity: vendor-ID",               Format::kHex},
    {0x1018, 2,       "Identity: product code",            Format::kHex},
    {0x1018, 3,       "Identity: revision number",         Format::kHex},
    {0x1018, 4,       "Identity: serial number",           Format::kHex},
    {0x1029, kAnySub, "Error behaviour",                   Format::kUnsigned},
    {0x603F, 0,       "Error code",                        Format::kErrorCode},
    {0x6040, 0,       "Controlword",                       Format::kControlword},
    {0x6041, 0,       "Statusword",                        Format::kStatusword},
    {0x605A, 0,       "Quick stop option code",            Format::kSigned},
    {0x605B, 0,       "Shutdown option code",              Format::kSigned},
    {0x605C, 0,       "Disable operation option code",     Format::kSigned},
    {0x605D, 0,       "Halt option code",                  Format::kSigned},
    {0x605E, 0,       "Fault reaction option code",        Format::kSigned},
    {0x6060, 0,       "Modes of operation",                Format::kMode},
    {0x6061, 0,       "Modes of operation display",        Format::kMode},
    {0x6062, kAnySub, "Position demand value",             Format::kSigned},
    {0x6063, kAnySub, "Position actual internal value",    Format::kSigned},
    {0x6064, kAnySub, "Position actual value",             Format::kSigned},
    {0x606B, kAnySub, "Velocity demand value",             Format::kSigned},
    {0x606C, kAnySub, "Velocity actual value",             Format::kSigned},
    {0x6071, kAnySub, "Target torque",                     Format::kSigned},
    {0x6072, kAnySub, "Max torque",                        Format::kUnsigned},
    {0x6073, kAnySub, "Max current",                       Format::kUnsigned},
    {0x6077, kAnySub, "Torque actual value",               Format::kSigned},
    {0x6078, kAnySub, "Current actual value",              Format::kSigned},
    {0x6079, 0,       "DC link circuit voltage",           Format::kUnsigned},
    {0x607A, kAnySub, "Target position",                   Format::kSigned},
    {0x607E, kAnySub, "Polarity",                          Format::kHex},
    {0x607F, kAnySub, "Max profile velocity",              Format::kUnsigned},
    {0x6080, kAnySub, "Max motor speed",                   Format::kUnsigned},
    {0x6081, kAnySub, "Profile velocity",                  Format::kUnsigned},
    {0x6083, kAnySub, "Profile acceleration",              Format::kUnsigned},
    {0x6084, kAnySub, "Profile deceleration",              Format::kUnsigned},
    {0x6085, kAnySub, "Quick stop deceleration",           Format::kUnsigned},
    {0x608F, kAnySub, "Position encoder resolution",       Format::kUnsigned},
    {0x60FD, kAnySub, "Digital inputs",                    Format::kHex},
    {0x60FE, kAnySub, "Digital outputs",                   Format::kHex},
    {0x60FF, kAnySub, "Target velocity",                   Format::kVelocity},
    {0x6502, 0,       "Supported drive modes",             Format::kHex},
};
// clang-format on

struct KnownObject {
  std::string name;
  Format format;
};

Format FormatOf(NamedObject::Shown shown) {
  switch (shown) {
    case NamedObject::Shown::kSigned:
      return Format::kSigned;
    case NamedObject::Shown::kHex:
      return Format::kHex;
    case NamedObject::Shown::kUnsigned:
      break;
  }
  return Format::kUnsigned;
}

// From there on, objects are the profile's or the maker's; the motors of a node are sub-indices.
constexpr std::uint16_t kFirstOfAMaker = 0x2000;

std::string OfMotor(std::string name, std::uint16_t index, std::uint8_t sub, const Make* make) {
  if (make != nullptr && make->motors > 1 && index >= kFirstOfAMaker) {
    name += sub == 0 ? ": number of motors" : " of motor " + std::to_string(sub);
  }
  return name;
}

std::optional<KnownObject> FindObjectOfMake(std::uint16_t index, std::uint8_t sub,
                                            const Make& make) {
  for (const NamedObject& row : make.objects) {
    if (row.index != index) continue;
    if (row.sub_index == sub) return KnownObject{row.name, FormatOf(row.shown)};
    if (row.sub_index == NamedObject::kEveryMotor) {
      return KnownObject{OfMotor(row.name, index, sub, &make), FormatOf(row.shown)};
    }
  }
  if (index < kFirstOfAMaker) return std::nullopt;
  for (const NamedObject& row : make.axis_parameters) {
    if ((row.index & 0xFFF) != (index & 0xFFF) || sub != row.sub_index) continue;
    const unsigned axis = ((index - kFirstOfAMaker) >> 12) & 0xF;
    return KnownObject{"Axis " + std::to_string(axis) + " " + row.name, FormatOf(row.shown)};
  }
  return std::nullopt;
}

// CiA 301: 512 records each of these kinds; the first four of each are in use here.
std::optional<KnownObject> FindPdoObject(std::uint16_t index, std::uint8_t sub) {
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
      if (sub == 0) return KnownObject{pdo + " mapping: number of objects", Format::kUnsigned};
      return KnownObject{pdo + " mapping: object " + std::to_string(sub), Format::kMappedObject};
    }
    const std::string record = pdo + " communication: ";
    switch (sub) {
      case 0:
        return KnownObject{record + "highest sub-index", Format::kUnsigned};
      case 1:
        return KnownObject{record + "COB-ID", Format::kHex};
      case 2:
        return KnownObject{record + "transmission type", Format::kHex};
      case 3:
        return KnownObject{record + "inhibit time", Format::kUnsigned};
      case 5:
        return KnownObject{record + "event timer", Format::kUnsigned};
      case 6:
        return KnownObject{record + "SYNC start value", Format::kUnsigned};
      default:
        return std::nullopt;
    }
  }
  return std::nullopt;
}

std::optional<KnownObject> FindObject(std::uint16_t index, std::uint8_t sub, const Make* make) {
  for (const ObjectRow& row : kObjects) {
    if (row.index != index || (row.sub != kAnySub && row.sub != sub)) continue;
    return KnownObject{row.sub == kAnySub ? OfMotor(row.name, index, sub, make) : row.name,
                       row.format};
  }
  if (auto object = FindPdoObject(index, sub)) return object;
  return make == nullptr ? std::nullopt : FindObjectOfMake(index, sub, *make);
}

std::int64_t SignExtended(std::uint32_t raw, unsigned bytes) {
  const std::int64_t sign = std::int64_t{1} << (8 * bytes - 1);
  return (static_cast<std::int64_t>(raw) ^ sign) - sign;
}

// Two motors share one 32-bit word; nodes with one motor leave the upper half 0.
template <typename Text>
std::string HalvesText(std::uint32_t raw, unsigned bytes, const Make* make, Text text) {
  std::string low = text(static_cast<std::uint16_t>(raw));
  if (bytes != 4 || ((make == nullptr || make->motors == 1) && raw >> 16 == 0)) return low;
  return "low word: " + low + "; high word: " + text(static_cast<std::uint16_t>(raw >> 16));
}

}  // namespace

std::string ObjectName(std::uint16_t index, std::uint8_t sub, const Make* make) {
  if (const EdsObject* const described = FindInDataSheet(index, sub)) return described->name;
  const auto object = FindObject(index, sub, make);
  return object ? object->name : std::string();
}

Value FormatValue(Format format, std::uint32_t raw, unsigned bytes, const Make* make) {
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
      // Where it is told neither by the number itself nor by the resolution of an encoder.
      if (make != nullptr && !make->counts_are_configured && make->velocity_units_per_rpm != 1) {
        char rpm[32];
        std::snprintf(
            rpm, sizeof rpm, " (%.1f rpm)",
            static_cast<double>(make->direction * velocity) / make->velocity_units_per_rpm);
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
    case Format::kText: {
      const std::uint8_t letters[] = {
          static_cast<std::uint8_t>(raw), static_cast<std::uint8_t>(raw >> 8),
          static_cast<std::uint8_t>(raw >> 16), static_cast<std::uint8_t>(raw >> 24)};
      return {raw, "\"" + Printable(letters, bytes) + "\""};
    }
  }
  return {raw, hex};
}

std::string Printable(const std::uint8_t* data, std::size_t size) {
  while (size > 0 && data[size - 1] == 0) --size;
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] >= 0x20 && data[i] < 0x7F) {
      text += static_cast<char>(data[i]);
    } else {
      text += "\\x" + Hex(data[i], 2).substr(2);
    }
  }
  return text;
}

bool IsText(std::uint16_t index, std::uint8_t sub, const Make* make) {
  const auto object = FindObject(index, sub, make);
  return object && object->format == Format::kText;
}

Value ObjectValue(std::uint16_t index, std::uint8_t sub, std::uint32_t raw, unsigned bytes,
                  const Make* make) {
  const auto object = FindObject(index, sub, make);
  const auto known = object ? std::make_optional(object->format) : std::nullopt;
  if (const auto value = DescribedValue(index, sub, raw, bytes, known)) return *value;
  if (object) return FormatValue(object->format, raw, bytes, make);
  return {raw, Hex(raw, static_cast<int>(2 * bytes)) + " (" + std::to_string(raw) + ")"};
}

}  // namespace motorctl
