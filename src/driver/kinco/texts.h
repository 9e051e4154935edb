// The configuration file of Kinco drives (YAML): texts for their codes, and one time.
#pragma once

#include <driver_common.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

// NOLINTNEXTLINE(readability-identifier-naming): the name is theirs
namespace YAML {
class Node;
}  // namespace YAML

namespace motor_driver::kinco {

constexpr char kUnknownText[] = "unknown";

using ErrorCodes = std::unordered_map<std::uint16_t, ErrorCodeInfo>;
using Texts = std::unordered_map<std::uint8_t, std::string>;

// Each part of the file may be absent. What cannot be read throws std::runtime_error. Numbers that
// are none throw std::invalid_argument or std::out_of_range: deliberate, a table with a wrong code
// is a mistake to be mended, a missing file is a condition to live with.
class ConfigFile {
 public:
  explicit ConfigFile(const std::string& path);
  ~ConfigFile();
  ConfigFile(const ConfigFile&) = delete;
  ConfigFile& operator=(const ConfigFile&) = delete;

  bool IsDefined() const;
  // These two add to what the table holds, up to the entry that throws; false when absent.
  bool ReadErrorCodes(ErrorCodes& codes) const;
  bool ReadTexts(const char* key, Texts& texts) const;
  std::optional<int> ReadEmergencyResetWait() const;

 private:
  std::unique_ptr<const YAML::Node> root_;
};

std::string TextOf(const Texts& texts, std::uint8_t code);

}  // namespace motor_driver::kinco
