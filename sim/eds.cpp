#include "sim/eds.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <vector>

#include "sim/node.h"
#include "sim/object_description.h"

namespace sim {
namespace {

// Of the descriptions, not of the day on which a file is made.
constexpr const char* kDate = "11-22-2026";
constexpr const char* kTime = "12:00PM";

constexpr unsigned kVariable = 7;
constexpr unsigned kArray = 8;
constexpr unsigned kRecord = 9;

using Subs = std::vector<std::uint8_t>;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks what is passed
std::string Format(const char* format, ...) {
  char text[64];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

const char* AccessText(Access access) {
  switch (access) {
    case Access::kReadOnly:
      return "ro";
    case Access::kWriteOnly:
      return "wo";
    case Access::kConst:
      return "const";
    case Access::kReadWrite:
      break;
  }
  return "rw";
}

bool IsMandatory(std::uint16_t index) {
  return index == 0x1000 || index == 0x1001 || index == 0x1018;
}

bool IsOfManufacturer(std::uint16_t index) { return index >= 0x2000 && index < 0x6000; }

std::int64_t Signed(std::uint32_t value, unsigned size) {
  const std::int64_t sign = std::int64_t{1} << (8 * size - 1);
  return (static_cast<std::int64_t>(value) ^ sign) - sign;
}

class Sheet {
 public:
  explicit Sheet(const Make& make)
      : make_(make),
        node_(make, Of(1), [](const Frame&) {}),
        next_(make, Of(2), [](const Frame&) {}) {
    // What differs between the two depends on the node-ID.
    node_.PowerOn();
    next_.PowerOn();
    for (const auto& [place, object] : node_.dictionary().objects()) {
      objects_[place.first].push_back(place.second);
    }
  }

  std::string Write() {
    WriteFileInfo();
    WriteDeviceInfo();
    WriteDummies();
    Section("Comments");
    Key("Lines", "1");
    Key("Line1", "Written by motor-drive-sim --make " + std::string(make_.name) + " --eds");
    WriteObjects("MandatoryObjects", IsMandatory);
    WriteObjects("OptionalObjects", [](std::uint16_t index) {
      return !IsMandatory(index) && !IsOfManufacturer(index);
    });
    WriteObjects("ManufacturerObjects", IsOfManufacturer);
    return std::move(text_);
  }

 private:
  static Node::Options Of(std::uint8_t node_id) {
    Node::Options options;
    options.node_id = node_id;
    return options;
  }

  void Section(const std::string& name) {
    text_.append(text_.empty() ? "[" : "\r\n[").append(name).append("]\r\n");
  }
  void Key(const std::string& name, const std::string& value) {
    text_.append(name).append("=").append(value).append("\r\n");
  }

  void WriteFileInfo() {
    Section("FileInfo");
    Key("FileName", std::string(make_.name) + ".eds");
    Key("FileVersion", "1");
    Key("FileRevision", "1");
    Key("EDSVersion", "4.0");
    Key("Description", std::string(make_.description));
    Key("CreationTime", kTime);
    Key("CreationDate", kDate);
    Key("CreatedBy", "motor-drive-sim");
    Key("ModificationTime", kTime);
    Key("ModificationDate", kDate);
    Key("ModifiedBy", "motor-drive-sim");
  }

  void WriteDeviceInfo() {
    const auto identity = [this](std::uint8_t sub) {
      return Format("0x%08X", node_.dictionary().Get(0x1018, sub));
    };
    Section("DeviceInfo");
    Key("VendorName", "no vendor: a simulated drive");
    Key("VendorNumber", identity(1));
    Key("ProductName", std::string(make_.device_name));
    Key("ProductNumber", identity(2));
    Key("RevisionNumber", identity(3));
    Key("OrderCode", "");
    for (const char* rate : {"10", "20", "50", "125", "250", "500", "800", "1000"}) {
      Key(std::string("BaudRate_") + rate, "1");
    }
    Key("SimpleBootUpMaster", "0");
    Key("SimpleBootUpSlave", "1");
    Key("Granularity", "8");
    Key("DynamicChannelsSupported", "0");
    Key("GroupMessaging", "0");
    Key("NrOfRXPDO", std::to_string(PdoEngine::kCount));
    Key("NrOfTXPDO", std::to_string(PdoEngine::kCount));
    Key("LSS_Supported", "0");
  }

  void WriteDummies() {
    Section("DummyUsage");
    for (unsigned type = 1; type <= 7; ++type) Key(Format("Dummy%04u", type), "0");
  }

  template <typename Belongs>
  void WriteObjects(const char* list, Belongs belongs) {
    std::vector<std::uint16_t> indices;
    for (const auto& [index, subs] : objects_) {
      if (belongs(index)) indices.push_back(index);
    }
    Section(list);
    Key("SupportedObjects", std::to_string(indices.size()));
    for (std::size_t i = 0; i < indices.size(); ++i) {
      Key(std::to_string(i + 1), Format("0x%04X", unsigned{indices[i]}));
    }
    for (const std::uint16_t index : indices) WriteObject(index, objects_[index]);
  }

  void WriteObject(std::uint16_t index, const Subs& subs) {
    const Described whole = DescribeObject(make_, index);
    const std::string section = Format("%04X", unsigned{index});
    Section(section);
    Key("ParameterName", whole.name);
    if (subs.size() == 1) {
      WriteEntry(index, subs[0], whole.type);
      return;
    }
    Key("ObjectType", Format("0x%X", whole.type == DataType::kNone ? kRecord : kArray));
    Key("SubNumber", std::to_string(subs.size()));
    for (const std::uint8_t sub : subs) {
      const Described entry = DescribeSub(make_, index, sub);
      Section(section + Format("sub%X", unsigned{sub}));
      Key("ParameterName", entry.name);
      WriteEntry(index, sub, entry.type);
    }
  }

  void WriteEntry(std::uint16_t index, std::uint8_t sub, DataType type) {
    const Object& object = node_.dictionary().At(index, sub);
    if (SizeOf(type) != object.size()) {
      throw std::logic_error("object " + Format("0x%04X:%u", unsigned{index}, unsigned{sub}) +
                             " of make '" + std::string(make_.name) + "' is of another type");
    }
    Key("ObjectType", Format("0x%X", kVariable));
    Key("DataType", Format("0x%04X", static_cast<unsigned>(type)));
    if (object.has_range()) {
      Key("LowLimit", Number(type, object.size(), object.min()));
      Key("HighLimit", Number(type, object.size(), object.max()));
    }
    Key("AccessType", AccessText(object.access()));
    Key("DefaultValue", Default(index, sub, type));
    Key("PDOMapping", object.mappable() ? "1" : "0");
  }

  // Empty where there is no data to be read after power-on.
  std::string Default(std::uint16_t index, std::uint8_t sub, DataType type) {
    if (node_.dictionary().Upload(index, sub).error != AbortCode::kNone) return "";
    const Object& object = node_.dictionary().At(index, sub);
    if (object.is_string()) return object.text();
    const std::uint32_t value = object.Read();
    if (next_.dictionary().Get(index, sub) == value) return Number(type, object.size(), value);
    // One of them is the ID of the first node.
    const std::uint32_t addend = value - 1;
    return addend == 0 ? "$NODEID" : "$NODEID+" + Number(type, object.size(), addend);
  }

  static std::string Number(DataType type, unsigned size, std::uint32_t value) {
    switch (type) {
      case DataType::kInteger8:
      case DataType::kInteger16:
      case DataType::kInteger32:
        return std::to_string(Signed(value, size));
      default:
        return Format("0x%0*X", static_cast<int>(2 * size), value);
    }
  }

  const Make& make_;
  Node node_;
  Node next_;
  std::map<std::uint16_t, Subs> objects_;
  std::string text_;
};

}  // namespace

std::string DataSheet(const Make& make) { return Sheet(make).Write(); }

}  // namespace sim
