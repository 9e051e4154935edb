// What a drive holds, kept in a file: what `motorctl config` saves, compares and restores.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "data_types.h"

namespace motorctl {

// Of object 0x1018; empty where the drive has none.
struct ConfigIdentity {
  std::optional<std::uint32_t> vendor;
  std::optional<std::uint32_t> product;
  std::optional<std::uint32_t> revision;
  std::optional<std::uint32_t> serial;
};

struct ConfigObject {
  std::uint16_t index = 0;
  std::uint8_t sub = 0;
  std::optional<DataType> type;  // empty: not known
  std::string access;            // as an EDS writes it; empty: not known
  bool is_volatile = false;      // changes by itself
  Bytes bytes;
  std::string name;
  int line = 0;  // of the file
};

struct Config {
  std::string source;  // for messages: the file, or "node 1"
  std::string tool;
  std::string time;  // of the day, UTC
  int node = 0;
  std::string eds;  // the file of it; empty: without
  ConfigIdentity identity;
  std::string device;  // texts of the drive
  std::string hardware;
  std::string software;
  bool partial = false;               // objects that could not be read are missing
  std::vector<ConfigObject> objects;  // by index, then sub-index

  // nullptr where there is no such object.
  const ConfigObject* Find(std::uint16_t index, std::uint8_t sub) const;
};

constexpr int kFirstConfigIndex = 0x1000;

// "0x1017:00"
std::string Place(std::uint16_t index, std::uint8_t sub);

// The same with the name of the object, where it has one: "0x1017:00 (Producer heartbeat time)"
std::string Shown(const ConfigObject& object);

// A value of the object for people and files, `bytes` or its own. Identifiers and mappings of
// CiA 301 are hexadecimal. Without a type: a hexadecimal number of up to 8 bytes, or bytes in the
// order of the wire.
std::string ConfigValueText(const ConfigObject& object, const Bytes& bytes);
std::string ConfigValueText(const ConfigObject& object);

// The type, where the bytes are a value of it.
std::optional<DataType> FittingType(const ConfigObject& object, const Bytes& bytes);

// As ReadConfig reads it; the same bytes for the same configuration.
std::string WriteConfig(const Config& config);

// The whole text is checked; what is wrong with it first is thrown as FileError.
Config ReadConfig(const std::string& text, const std::string& name);
Config LoadConfig(const std::string& file);

}  // namespace motorctl
