#include "data_sheet.h"

#include <algorithm>
#include <optional>

#include "config_pdo.h"
#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kIdentifier = 0x7FF;
constexpr unsigned kLongestPayload = 8;
// CiA 301: 512 records of each kind, and as many mappings 0x200 above.
constexpr std::uint16_t kReceive = 0x1400;
constexpr std::uint16_t kTransmit = 0x1800;
constexpr std::uint16_t kRecords = 0x200;

struct Sheet {
  const Eds* eds = nullptr;
  std::vector<MappedPdo> pdos;
};

Sheet& Current() {
  static Sheet sheet;
  return sheet;
}

std::optional<EdsValue> ValueIn(const Eds& eds, unsigned index, unsigned sub) {
  const EdsObject* const object =
      eds.Find(static_cast<std::uint16_t>(index), static_cast<std::uint8_t>(sub));
  if (object == nullptr) return std::nullopt;
  return object->parameter_value ? object->parameter_value : object->default_value;
}

std::uint32_t NumberOf(const EdsValue& value, unsigned node) {
  return static_cast<std::uint32_t>(
      IntegerOf(DataType::kUnsigned32, value.Of(static_cast<int>(node))));
}

// Fields that are not of whole bytes cannot be told apart here: then there are none.
std::vector<MappedPdo::Field> FieldsOf(const Eds& eds, unsigned mapping) {
  std::vector<MappedPdo::Field> fields;
  const auto count = ValueIn(eds, mapping, 0);
  unsigned length = 0;
  for (unsigned sub = 1; count && sub <= NumberOf(*count, 0); ++sub) {
    const auto mapped = ValueIn(eds, mapping, sub);
    if (!mapped) return {};
    const std::uint32_t entry = NumberOf(*mapped, 0);
    const unsigned bits = entry & 0xFF;
    if (bits == 0 || bits % 8 != 0 || length + bits / 8 > kLongestPayload) return {};
    MappedPdo::Field field;
    field.index = static_cast<std::uint16_t>(entry >> 16);
    field.sub = static_cast<std::uint8_t>(entry >> 8);
    field.offset = length;
    field.bytes = bits / 8;
    const EdsObject* const object = eds.Find(field.index, field.sub);
    field.name =
        object != nullptr ? object->name : Hex(field.index, 4) + ":" + Hex(field.sub, 2).substr(2);
    field.key = field.name;
    std::replace(field.key.begin(), field.key.end(), ' ', '_');
    length += field.bytes;
    fields.push_back(field);
  }
  return fields;
}

std::vector<MappedPdo> PdosOf(const Eds& eds) {
  std::vector<MappedPdo> pdos;
  for (const std::uint16_t first : {kTransmit, kReceive}) {
    for (unsigned number = 0; number < kRecords; ++number) {
      const auto cob_id = ValueIn(eds, first + number, 1);
      if (!cob_id || (NumberOf(*cob_id, 0) & kNotInUse) != 0) continue;
      auto fields = FieldsOf(eds, first + number + kRecords);
      if (fields.empty()) continue;
      pdos.push_back({(first == kTransmit ? "TPDO" : "RPDO") + std::to_string(number + 1), *cob_id,
                      std::move(fields)});
    }
  }
  return pdos;
}

}  // namespace

void UseDataSheet(const Eds* sheet) {
  Current().eds = sheet;
  Current().pdos = sheet == nullptr ? std::vector<MappedPdo>() : PdosOf(*sheet);
}

const Eds* DataSheet() { return Current().eds; }

const EdsObject* FindInDataSheet(std::uint16_t index, std::uint8_t sub) {
  return DataSheet() == nullptr ? nullptr : DataSheet()->Find(index, sub);
}

const MappedPdo* FindMappedPdo(std::uint32_t id, unsigned node) {
  for (const MappedPdo& pdo : Current().pdos) {
    if ((NumberOf(pdo.cob_id, node) & kIdentifier) == id) return &pdo;
  }
  return nullptr;
}

}  // namespace motorctl
