#include "vehicle.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <type_traits>

#include "wheels/vehicle_rules.h"

namespace motor_driver {
namespace {

constexpr std::size_t kLongestFile = 64 << 10;

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  return text;
}

std::string ReadFile(const std::string& path) {
  std::error_code no_such_file;
  if (std::filesystem::is_directory(path, no_such_file)) {
    throw VehicleError(path + ": is a directory");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw VehicleError(path + ": cannot be opened");
  }
  std::string text(kLongestFile + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad()) {
    throw VehicleError(path + ": cannot be read");
  }
  if (text.size() > kLongestFile) {
    throw VehicleError(
        fmt::format("{}: too long for a vehicle, at most {} bytes", path, kLongestFile));
  }
  return text;
}

// Takes the entries of one mapping, each at most once, and remembers where they stand.
class Mapping {
 public:
  using Places = std::map<std::string, YAML::Mark>;

  // `prefix` is put before every key: "wheels[0]."
  Mapping(const std::string& path, const YAML::Node& node, std::string prefix, Places& places)
      : path_(path), prefix_(std::move(prefix)), places_(places) {
    if (!node.IsMap()) {
      Refuse(node.Mark(), prefix_.empty() ? "vehicle" : prefix_.substr(0, prefix_.size() - 1),
             "is not a list of keys with values");
    }
    for (const auto& entry : node) {
      const std::string key = entry.first.IsScalar() ? entry.first.Scalar() : "?";
      if (!entries_.emplace(key, Entry{entry.first.Mark(), entry.second}).second) {
        Refuse(entry.first.Mark(), prefix_ + key, "stands twice");
      }
      places_[prefix_ + key] = entry.first.Mark();
    }
  }

  // What is left was not asked for.
  void End(const std::string& known) const {
    for (const auto& [key, entry] : entries_) {
      Refuse(entry.mark, prefix_ + key, "unknown key, there are " + known);
    }
  }

  bool Take(const char* key, YAML::Node& value) {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) {
      return false;
    }
    value = entry->second.value;
    mark_ = value.Mark().is_null() ? entry->second.mark : value.Mark();
    entries_.erase(entry);
    return true;
  }

  void Take(const char* key, std::string& out) {
    YAML::Node value;
    if (Take(key, value)) {
      if (!value.IsScalar()) {
        Refuse(mark_, prefix_ + key, "is not a text");
      }
      out = value.Scalar();
    }
  }

  void Take(const char* key, bool& out) {
    YAML::Node value;
    if (Take(key, value)) {
      const std::string text = value.IsScalar() ? value.Scalar() : "";
      if (text != "true" && text != "false") {
        Refuse(mark_, prefix_ + key, "is neither true nor false");
      }
      out = text == "true";
    }
  }

  // Whole numbers, and others as they are usually written; no "nan", no "0x10".
  template <typename Number>
  std::enable_if_t<std::is_arithmetic_v<Number>> Take(const char* key, Number& out) {
    YAML::Node value;
    if (Take(key, value)) {
      const std::string text = value.IsScalar() ? value.Scalar() : "";
      const char* const end = text.data() + text.size();
      Number number = 0;
      const auto [stop, error] = std::from_chars(text.data(), end, number);
      const bool word = text.find_first_of("ni") != std::string::npos;  // "nan", "inf"
      if (error != std::errc() || stop != end || word) {
        Refuse(mark_, prefix_ + key,
               std::is_integral_v<Number> ? "is not a whole number that fits" : "is not a number");
      }
      out = number;
    }
  }

  void Take(const char* key, std::chrono::milliseconds& out) {
    std::chrono::milliseconds::rep count = out.count();
    Take(key, count);
    out = std::chrono::milliseconds(count);
  }

  [[noreturn]] void Refuse(const YAML::Mark& mark, const std::string& key,
                           const std::string& what) const {
    throw VehicleError(
        OneLine(fmt::format("{}:{}:{}: {}: {}", path_, mark.line + 1, mark.column + 1, key, what)));
  }

 private:
  struct Entry {
    YAML::Mark mark;
    YAML::Node value;
  };

  const std::string& path_;
  std::string prefix_;
  Places& places_;
  std::map<std::string, Entry> entries_;
  YAML::Mark mark_;
};

Wheel ReadWheel(Mapping mapping) {
  Wheel wheel;
  mapping.Take("name", wheel.name);
  mapping.Take("node", wheel.node);
  mapping.Take("motor", wheel.motor);
  mapping.Take("mirrored", wheel.mirrored);
  mapping.Take("gear_ratio", wheel.gear_ratio);
  mapping.End("name, node, motor, mirrored and gear_ratio");
  return wheel;
}

Vehicle ReadVehicle(const std::string& path, const YAML::Node& root, Mapping::Places& places) {
  Mapping mapping(path, root, "", places);
  Vehicle vehicle;
  YAML::Node wheels;
  if (mapping.Take("wheels", wheels)) {
    if (!wheels.IsSequence()) {
      mapping.Refuse(places["wheels"], "wheels", "is not a list of wheels");
    }
    for (const YAML::Node& wheel : wheels) {
      const std::string name = fmt::format("wheels[{}]", vehicle.wheels.size());
      places[name] = wheel.Mark();
      vehicle.wheels.push_back(ReadWheel(Mapping(path, wheel, name + ".", places)));
    }
  }
  mapping.Take("make", vehicle.make);
  mapping.Take("interface", vehicle.interface);
  mapping.Take("period_ms", vehicle.period);
  mapping.Take("command_timeout_ms", vehicle.command_timeout);
  mapping.Take("feedback_timeout_ms", vehicle.feedback_timeout);
  mapping.Take("heartbeat_timeout_ms", vehicle.heartbeat_timeout);
  mapping.Take("drive_watchdog_ms", vehicle.drive_watchdog);
  mapping.Take("fault_deceleration", vehicle.fault_deceleration);
  mapping.Take("max_rpm", vehicle.max_rpm);
  mapping.Take("max_acceleration", vehicle.max_acceleration);
  mapping.Take("max_deceleration", vehicle.max_deceleration);
  mapping.Take("counts_per_revolution", vehicle.counts_per_revolution);
  mapping.Take("texts", vehicle.texts);
  mapping.Take("realtime_priority", vehicle.realtime_priority);
  mapping.End(
      "make, interface, wheels, period_ms, command_timeout_ms, feedback_timeout_ms, "
      "heartbeat_timeout_ms, drive_watchdog_ms, fault_deceleration, max_rpm, max_acceleration, "
      "max_deceleration, counts_per_revolution, texts and realtime_priority");
  if (const auto problem = FindProblem(vehicle)) {
    // A key that is not there has the place of what it is missing in.
    auto place = places.find(problem->key);
    if (place == places.end()) {
      place = places.find(problem->key.substr(0, problem->key.find('.')));
    }
    mapping.Refuse(place != places.end() ? place->second : root.Mark(), problem->key,
                   problem->text);
  }
  return vehicle;
}

}  // namespace

Vehicle LoadVehicle(const std::string& path) {
  const std::string text = ReadFile(path);
  Vehicle vehicle;
  try {
    const std::vector<YAML::Node> documents = YAML::LoadAll(text);
    if (documents.size() != 1) {
      throw VehicleError(path + (documents.empty() ? ": is empty" : ": holds several documents") +
                         ", a vehicle is one");
    }
    Mapping::Places places;
    vehicle = ReadVehicle(path, documents.front(), places);
  } catch (const YAML::Exception& error) {
    throw VehicleError(OneLine(
        fmt::format("{}:{}:{}: {}", path, error.mark.line + 1, error.mark.column + 1, error.msg)));
  }
  if (!vehicle.texts.empty() && std::filesystem::path(vehicle.texts).is_relative()) {
    vehicle.texts = (std::filesystem::path(path).parent_path() / vehicle.texts).string();
  }
  return vehicle;
}

}  // namespace motor_driver
