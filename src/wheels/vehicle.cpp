#include "vehicle.h"

#include <fmt/format.h>
#include <yaml-cpp/depthguard.h>
#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <type_traits>

#include "wheels/vehicle_rules.h"
#include "wheels/yaml_documents.h"

namespace motor_driver {
namespace {

constexpr std::size_t kLongestFile = 64 << 10;

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      c = ' ';
    }
  }
  return text;
}

// Of what a file holds, no more than fits a line.
std::string Shortened(const std::string& key) {
  const std::string quoted = Quoted(key);
  return quoted.substr(1, quoted.size() - 2);
}

[[noreturn]] void RefuseFile(const std::string& path, const std::string& what) {
  throw VehicleError(OneLine(path + ": " + what));
}

[[noreturn]] void RefusePlace(const std::string& path, const YAML::Mark& mark,
                              const std::string& key, const std::string& what) {
  throw VehicleError(
      OneLine(fmt::format("{}:{}:{}: {}: {}", path, mark.line + 1, mark.column + 1, key, what)));
}

std::string ReadFile(const std::string& path) {
  std::error_code no_such_file;
  if (std::filesystem::is_directory(path, no_such_file)) {
    RefuseFile(path, "is a directory, not the file of a vehicle");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    RefuseFile(path, "cannot be opened: " + std::generic_category().message(errno));
  }
  std::string text(kLongestFile + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad()) {
    RefuseFile(path, "cannot be read: " + std::generic_category().message(errno));
  }
  if (text.size() > kLongestFile) {
    RefuseFile(path, fmt::format("too long for a vehicle, at most {} bytes", kLongestFile));
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
        Refuse(entry.first.Mark(), prefix_ + Shortened(key), "stands twice");
      }
      places_[prefix_ + key] = entry.first.Mark();
    }
  }

  // What is left was not asked for.
  void End(const std::string& known) const {
    for (const auto& [key, entry] : entries_) {
      Refuse(entry.mark, prefix_ + Shortened(key), "unknown key, there are " + known);
    }
  }

  bool Take(const char* key, YAML::Node& value) {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) {
      return false;
    }
    value = entry->second.value;
    // A value that is left out is where the next key stands.
    mark_ = value.IsNull() ? entry->second.mark : value.Mark();
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
        Refuse(mark_, prefix_ + key,
               value.IsScalar() ? Quoted(text) + " is neither true nor false"
                                : std::string("is neither true nor false"));
      }
      out = text == "true";
    }
  }

  // Numbers as they are usually written; no "nan", no "0x10".
  template <typename Number>
  std::enable_if_t<std::is_arithmetic_v<Number>> Take(const char* key, Number& out) {
    using Read = std::conditional_t<std::is_integral_v<Number>, long long, Number>;
    YAML::Node value;
    if (Take(key, value)) {
      const std::string text = value.IsScalar() ? value.Scalar() : "";
      const char* const end = text.data() + text.size();
      Read number = 0;
      const auto [stop, error] = std::from_chars(text.data(), end, number);
      const bool word = text.find_first_of("ni") != std::string::npos;  // "nan", "inf"
      if (stop != end || word || error == std::errc::invalid_argument) {
        Refuse(mark_, prefix_ + key,
               (value.IsScalar() ? Quoted(text) + " is" : std::string("is")) +
                   (std::is_integral_v<Number> ? " not a whole number, as 10 is"
                                               : " not a number, as 1.5 is"));
      }
      out = static_cast<Number>(number);
      if (error != std::errc() || static_cast<Read>(out) != number ||
          (std::is_unsigned_v<Number> && number < 0)) {
        Refuse(mark_, prefix_ + key, Quoted(text) + " is too large or too small");
      }
    }
  }

  void Take(const char* key, std::chrono::milliseconds& out) {
    std::chrono::milliseconds::rep count = out.count();
    Take(key, count);
    out = std::chrono::milliseconds(count);
  }

  [[noreturn]] void Refuse(const YAML::Mark& mark, const std::string& key,
                           const std::string& what) const {
    RefusePlace(path_, mark, key, what);
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
    if (HoldsSeveralDocuments(text)) {
      RefuseFile(path, "holds several documents, a vehicle is one");
    }
    const YAML::Node root = YAML::Load(text);
    if (root.IsNull()) {
      RefuseFile(path, "is empty, a vehicle has keys with values");
    }
    Mapping::Places places;
    vehicle = ReadVehicle(path, root, places);
  } catch (const YAML::DeepRecursion& error) {
    RefusePlace(path, error.mark, "vehicle", "is nested too deep for one");
  } catch (const YAML::Exception& error) {
    RefusePlace(path, error.mark, "vehicle", "is not YAML: " + error.msg);
  }
  if (!vehicle.texts.empty() && std::filesystem::path(vehicle.texts).is_relative()) {
    vehicle.texts = (std::filesystem::path(path).parent_path() / vehicle.texts).string();
  }
  return vehicle;
}

}  // namespace motor_driver
