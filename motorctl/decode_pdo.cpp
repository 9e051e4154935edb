// PDOs, as the table of makes lays them out, or else a data sheet.
#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "data_sheet.h"
#include "decode.h"

namespace motorctl {
namespace {

using motor_driver::Field;

struct PdoField {
  PdoField(std::string title, unsigned at, unsigned size, Format how)
      : name(std::move(title)), key(name), offset(at), bytes(size), format(how) {
    std::replace(key.begin(), key.end(), ' ', '_');
  }

  std::string name;
  std::string key;  // of JSON
  unsigned offset;
  unsigned bytes;
  Format format;
};

std::vector<PdoField> LayOut(const Make& make, std::uint32_t base) {
  struct Row {
    const Field& field;
    const char* name;
    Format format;
  };
  const Row rows[] = {{make.target, "target velocity", Format::kVelocity},
                      {make.position, "position", Format::kSigned},
                      {make.error_code, "error code", Format::kErrorCode},
                      {make.statusword, "statusword", Format::kStatusword},
                      {make.inputs, "digital inputs", Format::kHex}};
  std::vector<PdoField> layout;
  for (const Row& row : rows) {
    if (row.field.bits == 0 || row.field.base_id != base) continue;
    const unsigned bytes = row.field.bits / 8;
    const auto motors = static_cast<unsigned>(make.motors);
    // Short values of all motors are one object of the drive.
    if (motors == 1 || bytes * motors <= 4) {
      layout.emplace_back(row.name, row.field.offset, bytes * motors, row.format);
      continue;
    }
    for (unsigned motor = 0; motor < motors; ++motor) {
      layout.emplace_back(row.name + (" " + std::to_string(motor + 1)),
                          row.field.offset + motor * bytes, bytes, row.format);
    }
  }
  std::sort(layout.begin(), layout.end(),
            [](const PdoField& left, const PdoField& right) { return left.offset < right.offset; });
  // What a drive sends before is its own.
  if (!layout.empty() && layout[0].offset > 0) {
    layout.insert(layout.begin(), {"first bytes", 0, layout[0].offset, Format::kHex});
  }
  return layout;
}

constexpr std::size_t kPdos = 8;  // four of each direction, in the order of their identifiers

std::size_t PdoOf(std::uint32_t base) { return (base - kFirstPdo) / 0x80; }

// Laid out once: a log has many of them.
const std::vector<PdoField>& LayoutOf(const Make* make, std::uint32_t base) {
  using Layouts = std::array<std::vector<PdoField>, kPdos>;
  static const std::vector<Layouts> of_makes = [] {
    std::vector<Layouts> result;
    for (const Make& each : motor_driver::Makes()) {
      Layouts layouts;
      for (std::uint32_t pdo = 0; pdo < kPdos; ++pdo) {
        layouts[pdo] = LayOut(each, kFirstPdo + pdo * 0x80);
      }
      result.push_back(std::move(layouts));
    }
    return result;
  }();
  static const std::vector<PdoField> unknown;
  if (make == nullptr) return unknown;
  return of_makes[static_cast<std::size_t>(make - motor_driver::Makes().data())][PdoOf(base)];
}

Value MappedValue(const MappedPdo::Field& field, const std::uint8_t* data, const Make* make) {
  if (field.bytes <= 4) {
    return ObjectValue(field.index, field.sub, LittleEndian(data, field.bytes), field.bytes, make);
  }
  const EdsObject* const object = FindInDataSheet(field.index, field.sub);
  const DataType type = object == nullptr ? DataType::kOctetString : object->type;
  const Bytes bytes(data, data + field.bytes);
  return {IntegerOf(type, bytes), ValueText(type, bytes)};
}

// Adds value after value of a PDO, as far as the frame has them.
template <typename PdoLayout, typename ValueOf>
void AddValues(const LoggedFrame& frame, const PdoLayout& layout, const char* too_short,
               ValueOf value_of, Meaning& meaning) {
  Fields values;
  const char* separator = "";
  for (const auto& field : layout) {
    if (field.offset + field.bytes > frame.length) {
      meaning.text.append(separator).append(too_short).append(": ");
      meaning.text += BytesText(frame.data.data(), frame.length);
      break;
    }
    const Value value = value_of(field, &frame.data[field.offset]);
    meaning.text.append(separator).append(field.name).append(" = ").append(value.text);
    values.Add(field.key, value.number);
    separator = " | ";
  }
  meaning.fields.Add("values", values);
}

}  // namespace

Meaning DecodePdo(const LoggedFrame& frame, std::uint32_t base, const Make* make) {
  const unsigned node = frame.id - base;
  const std::vector<PdoField>& layout = LayoutOf(make, base);
  const MappedPdo* const mapped = layout.empty() ? FindMappedPdo(frame.id, node) : nullptr;
  // From 0x180 on, transmit and receive PDOs take turns.
  const unsigned number = (base - kFirstPdo) / 0x100 + 1;
  const std::string pdo = mapped != nullptr
                              ? mapped->name
                              : ((base & 0x80) != 0 ? "TPDO" : "RPDO") + std::to_string(number);
  Meaning meaning{"pdo", pdo + " of " + NodeText(node) + ": ",
                  Fields().Add("node", node).Add("pdo", pdo)};
  if (mapped != nullptr) {
    AddValues(
        frame, mapped->fields, "too short for the data sheet",
        [make](const MappedPdo::Field& field, const std::uint8_t* data) {
          return MappedValue(field, data, make);
        },
        meaning);
  } else if (!layout.empty()) {
    AddValues(
        frame, layout, "too short for this make",
        [make](const PdoField& field, const std::uint8_t* data) {
          return FormatValue(field.format, LittleEndian(data, field.bytes), field.bytes, make);
        },
        meaning);
  } else {
    meaning.text += BytesText(frame.data.data(), frame.length);
  }
  return meaning;
}

}  // namespace motorctl
