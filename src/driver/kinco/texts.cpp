#include "driver/kinco/texts.h"

#include <yaml-cpp/yaml.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace motor_driver::kinco {
namespace {

std::uint32_t ToNumber(const YAML::Node& text, int base) {
  return static_cast<std::uint32_t>(std::stoul(text.as<std::string>(), nullptr, base));
}

}  // namespace

ConfigFile::ConfigFile(const std::string& path) {
  // Before yaml-cpp, whose buffer leaks when the stream throws.
  std::error_code no_such_file;
  if (std::filesystem::is_directory(path, no_such_file)) {
    throw std::runtime_error("is a directory");
  }
  root_ = std::make_unique<const YAML::Node>(YAML::LoadFile(path));
}

ConfigFile::~ConfigFile() = default;

bool ConfigFile::IsDefined() const { return root_->IsDefined(); }

bool ConfigFile::ReadErrorCodes(ErrorCodes& codes) const {
  const YAML::Node entries = (*root_)["err_code"];
  if (!entries) {
    return false;
  }
  for (const YAML::Node& entry : entries) {
    const auto code = static_cast<std::uint16_t>(ToNumber(entry["code"], 16));
    const std::uint32_t event = ToNumber(entry["err_code"], 10);
    codes[code] = {event, entry["msg"].as<std::string>()};
  }
  return true;
}

bool ConfigFile::ReadTexts(const char* key, Texts& texts) const {
  const YAML::Node entries = (*root_)[key];
  if (!entries) {
    return false;
  }
  for (const YAML::Node& entry : entries) {
    const auto code = static_cast<std::uint8_t>(ToNumber(entry["code"], 16));
    texts[code] = entry["msg"].as<std::string>();
  }
  return true;
}

std::optional<int> ConfigFile::ReadEmergencyResetWait() const {
  const YAML::Node wait = (*root_)["emergency_reset_wait"];
  return wait ? std::optional<int>(wait.as<int>()) : std::nullopt;
}

std::string TextOf(const Texts& texts, std::uint8_t code) {
  const auto known = texts.find(code);
  return known != texts.end() ? known->second : kUnknownText;
}

}  // namespace motor_driver::kinco
