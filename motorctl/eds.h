// Electronic data sheets (CiA 306): the objects that a device has, or (DCF) how one was configured.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "data_types.h"
#include "ini_file.h"

namespace motorctl {

// A number may be written as $NODEID and an addend.
struct EdsValue {
  Bytes bytes;
  bool adds_node_id = false;

  // `node_id`: 1 to 127.
  Bytes Of(int node_id) const;
};

// ObjectType of the index; its sub-indices share it.
enum class ObjectKind { kDomain = 2, kVariable = 7, kArray = 8, kRecord = 9 };

// ObjFlags of CiA 306: not to be written when a whole DCF is.
constexpr std::uint32_t kRefusesDownload = 1;

struct EdsObject {
  std::uint16_t index = 0;
  std::uint8_t sub = 0;
  ObjectKind kind = ObjectKind::kVariable;
  std::string name;  // of a sub-index with the name of its index before it: "Identity: Vendor-ID"
  DataType type = DataType::kUnsigned8;
  std::string access;  // ro, wo, rw, rwr, rww, const
  bool mappable = false;
  std::uint32_t flags = 0;  // ObjFlags
  std::optional<EdsValue> default_value;
  std::optional<EdsValue> low_limit;
  std::optional<EdsValue> high_limit;
  std::optional<EdsValue> parameter_value;  // of a DCF

  bool readable() const { return access != "wo"; }
  bool writable() const { return access != "ro" && access != "const"; }
};

struct Eds {
  std::string file;
  std::string vendor_name;
  std::optional<std::uint32_t> vendor_number;
  std::string product_name;
  std::optional<std::uint32_t> product_number;
  std::optional<std::uint32_t> revision_number;
  std::optional<int> node_id;      // of a DCF
  std::vector<EdsObject> objects;  // by index, then sub-index; from 0x1000 on
  std::string note;                // what was left out; empty: nothing

  // nullptr where the file has no such object.
  const EdsObject* Find(std::uint16_t index, std::uint8_t sub) const;
};

// Why the value must not be written to the object: "300 is above the high limit 100"; empty where
// nothing is against it.
std::string AgainstLimits(const EdsObject& object, const Bytes& value, int node_id);

// The whole file is checked; what is wrong with it first is thrown as FileError.
Eds LoadEds(const std::string& file);
Eds ReadEds(std::FILE* file, const std::string& name);

}  // namespace motorctl
