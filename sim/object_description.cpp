#include "sim/object_description.h"

#include <cstdio>
#include <stdexcept>

#include "sim/pdo_layout.h"

namespace sim {
namespace {

constexpr int kWhole = ObjectText::kWhole;
constexpr std::uint16_t kFirstOfMotors = 0x2000;

// Of every make. What a make has of its own stands in its own file.
// clang-format off
constexpr ObjectText kTexts[] = {
    {0x1000, kWhole, "Device type",                      DataType::kUnsigned32},
    {0x1001, kWhole, "Error register",                   DataType::kUnsigned8},
    {0x1003, kWhole, "Pre-defined error field",          DataType::kUnsigned32},
    {0x1003, 0,      "Number of errors",                 DataType::kUnsigned8},
    {0x1005, kWhole, "COB-ID SYNC",                      DataType::kUnsigned32},
    {0x1008, kWhole, "Manufacturer device name",         DataType::kVisibleString},
    {0x1009, kWhole, "Manufacturer hardware version",    DataType::kVisibleString},
    {0x100A, kWhole, "Manufacturer software version",    DataType::kVisibleString},
    {0x1010, kWhole, "Store parameters",                 DataType::kUnsigned32},
    {0x1010, 1,      "Save all parameters",              DataType::kUnsigned32},
    {0x1014, kWhole, "COB-ID EMCY",                      DataType::kUnsigned32},
    {0x1016, kWhole, "Consumer heartbeat time",          DataType::kUnsigned32},
    {0x1017, kWhole, "Producer heartbeat time",          DataType::kUnsigned16},
    {0x1018, kWhole, "Identity object",                  DataType::kNone},
    {0x1018, 1,      "Vendor-ID",                        DataType::kUnsigned32},
    {0x1018, 2,      "Product code",                     DataType::kUnsigned32},
    {0x1018, 3,      "Revision number",                  DataType::kUnsigned32},
    {0x1018, 4,      "Serial number",                    DataType::kUnsigned32},
    {0x1029, kWhole, "Error behaviour",                  DataType::kUnsigned8},
    {0x1029, 1,      "Communication error",              DataType::kUnsigned8},
    {0x6007, kWhole, "Abort connection option code",     DataType::kInteger16},
    {0x603F, kWhole, "Error code",                       DataType::kUnsigned16},
    {0x6040, kWhole, "Controlword",                      DataType::kUnsigned16},
    {0x6041, kWhole, "Statusword",                       DataType::kUnsigned16},
    {0x605A, kWhole, "Quick stop option code",           DataType::kInteger16},
    {0x6060, kWhole, "Modes of operation",               DataType::kInteger8},
    {0x6061, kWhole, "Modes of operation display",       DataType::kInteger8},
    {0x6063, kWhole, "Position actual internal value",   DataType::kInteger32},
    {0x6064, kWhole, "Position actual value",            DataType::kInteger32},
    {0x606C, kWhole, "Velocity actual value",            DataType::kInteger32},
    {0x607A, kWhole, "Target position",                  DataType::kInteger32},
    {0x6081, kWhole, "Profile velocity",                 DataType::kUnsigned32},
    {0x6083, kWhole, "Profile acceleration",             DataType::kUnsigned32},
    {0x6084, kWhole, "Profile deceleration",             DataType::kUnsigned32},
    {0x60FF, kWhole, "Target velocity",                  DataType::kInteger32},
    {0x6502, kWhole, "Supported drive modes",            DataType::kUnsigned32},
};
// clang-format on

const ObjectText* FindIn(const ObjectText* begin, const ObjectText* end, std::uint16_t index,
                         int sub) {
  for (const ObjectText* row = begin; row != end; ++row) {
    if (row->index == index && row->sub == sub) return row;
  }
  return nullptr;
}

// The make's own first: it may have another type.
const ObjectText* Find(const Make& make, std::uint16_t index, int sub) {
  const ObjectText* const begin = make.object_texts.data();
  const ObjectText* const own = FindIn(begin, begin + make.object_texts.size(), index, sub);
  return own != nullptr ? own : FindIn(std::begin(kTexts), std::end(kTexts), index, sub);
}

struct PdoRecord {
  std::uint16_t first;
  const char* direction;
  bool mapping;
};
constexpr PdoRecord kPdoRecords[] = {{pdo::kReceiveCommunication, "RPDO", false},
                                     {pdo::kReceiveMapping, "RPDO", true},
                                     {pdo::kTransmitCommunication, "TPDO", false},
                                     {pdo::kTransmitMapping, "TPDO", true}};

const PdoRecord* FindPdoRecord(std::uint16_t index) {
  for (const PdoRecord& record : kPdoRecords) {
    if ((index & 0xFE00U) == record.first) return &record;
  }
  return nullptr;
}

Described DescribePdoSub(const PdoRecord& record, std::uint8_t sub) {
  if (record.mapping) return {"Mapped object " + std::to_string(sub), DataType::kUnsigned32};
  switch (sub) {
    case pdo::kCobId:
      return {"COB-ID", DataType::kUnsigned32};
    case pdo::kTransmissionType:
      return {"Transmission type", DataType::kUnsigned8};
    case pdo::kInhibitTime:
      return {"Inhibit time", DataType::kUnsigned16};
    case pdo::kEventTimer:
      return {"Event timer", DataType::kUnsigned16};
    default:
      throw std::logic_error("a PDO has no sub-index " + std::to_string(sub));
  }
}

}  // namespace

unsigned SizeOf(DataType type) {
  switch (type) {
    case DataType::kInteger8:
    case DataType::kUnsigned8:
      return 1;
    case DataType::kInteger16:
    case DataType::kUnsigned16:
      return 2;
    case DataType::kInteger32:
    case DataType::kUnsigned32:
      return 4;
    case DataType::kVisibleString:
    case DataType::kNone:
      break;
  }
  return 0;
}

Described DescribeObject(const Make& make, std::uint16_t index) {
  if (const ObjectText* const row = Find(make, index, kWhole)) return {row->name, row->type};
  if (index == make.user_text) return {"User text", DataType::kVisibleString};
  if (const PdoRecord* const record = FindPdoRecord(index)) {
    const std::string number = std::to_string(index - record->first + 1);
    return {record->direction + number + (record->mapping ? " mapping" : " communication"),
            DataType::kNone};
  }
  char text[8];
  std::snprintf(text, sizeof text, "0x%04X", unsigned{index});
  throw std::logic_error(std::string("object ") + text + " of make '" + std::string(make.name) +
                         "' has no name");
}

Described DescribeSub(const Make& make, std::uint16_t index, std::uint8_t sub) {
  if (const ObjectText* const row = Find(make, index, sub)) return {row->name, row->type};
  if (sub == 0) return {"Highest sub-index", DataType::kUnsigned8};
  if (const PdoRecord* const record = FindPdoRecord(index)) return DescribePdoSub(*record, sub);
  const bool is_motor = make.axis_count > 1 && index >= kFirstOfMotors;
  return {(is_motor ? "Motor " : "Entry ") + std::to_string(sub), DescribeObject(make, index).type};
}

}  // namespace sim
