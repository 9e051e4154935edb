// Whether a drive stands and is not enabled.
#include <algorithm>
#include <map>
#include <thread>

#include "abort_codes.h"
#include "config_bus.h"
#include "context.h"
#include "sdo_words.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint16_t kAxis = 0x0800;  // between the objects of two axes
constexpr int kAxes = 8;
// Between two readings; an encoder at rest moves by a count or two.
constexpr std::chrono::milliseconds kBetween{250};
constexpr std::uint32_t kAtRest = 4;

// Only where the voltage is off, or a fault holds it off.
bool IsDisabled(std::uint16_t statusword) {
  switch (statusword & 0x4F) {
    case 0x00:  // not ready to switch on
    case 0x40:  // switch on disabled
    case 0x08:  // fault
      return true;
    default:
      return (statusword & 0x6F) == 0x21;  // ready to switch on
  }
}

std::string Enabled(ConfigDevice& device) {
  for (int axis = 0; axis < kAxes; ++axis) {
    const auto index = static_cast<std::uint16_t>(kStatusword + axis * kAxis);
    const SdoAnswer answer = device.Read(index, 0);
    const bool is_absent =
        answer.kind == SdoAnswer::Kind::kAborted && answer.abort_code == kNoObject;
    if (is_absent && axis > 0) break;
    if (!answer.ok()) {
      return "whether it is enabled is not known: " + NameObject(index, 0) + ": " +
             Explanation(answer);
    }
    if (answer.bytes.size() < 2) {
      return "whether it is enabled is not known: " + NameObject(index, 0) + " has " +
             std::to_string(answer.bytes.size()) + " bytes";
    }
    // Two motors may share one object.
    for (std::size_t i = 0; i + 2 <= answer.bytes.size(); i += 2) {
      const auto word = static_cast<std::uint16_t>(answer.bytes[i] | answer.bytes[i + 1] << 8);
      if (!IsDisabled(word)) {
        return "the drive is enabled, or about to be: statusword " + Hex(word, 4) + ", " +
               StatuswordText(word);
      }
    }
  }
  return "";
}

using Place = std::pair<std::uint16_t, std::uint8_t>;
using Values = std::map<Place, std::uint32_t>;

// Of every axis, and as the makes have them; only those that the drive has.
Values Read(ConfigDevice& device, const std::vector<Place>& places) {
  Values values;
  for (const auto& [index, sub] : places) {
    const SdoAnswer answer = device.Read(index, sub);
    if (answer.ok() && !answer.bytes.empty()) values[{index, sub}] = answer.number();
  }
  return values;
}

std::vector<Place> Places(std::vector<Place> places,
                          std::vector<motor_driver::Object> motor_driver::Make::*of_make) {
  const std::vector<Place> first = places;
  for (int axis = 1; axis < kAxes; ++axis) {
    for (const Place& place : first) {
      places.emplace_back(static_cast<std::uint16_t>(place.first + axis * kAxis), place.second);
    }
  }
  for (const motor_driver::Make& make : motor_driver::Makes()) {
    for (const motor_driver::Object& object : make.*of_make) {
      const Place place = {object.index, object.sub_index};
      if (std::find(places.begin(), places.end(), place) == places.end()) places.push_back(place);
    }
  }
  return places;
}

std::vector<Place> Known(const Values& values) {
  std::vector<Place> places;
  for (const auto& [place, value] : values) places.push_back(place);
  return places;
}

std::string Moving(ConfigDevice& device, Values& positions, Values& velocities) {
  for (const auto& [place, now] : Read(device, Known(positions))) {
    const auto moved = static_cast<std::int32_t>(now - positions[place]);
    if (moved > static_cast<std::int32_t>(kAtRest) || moved < -static_cast<std::int32_t>(kAtRest)) {
      return "the drive moves: " + NameObject(place.first, place.second) + " changes";
    }
    positions[place] = now;
  }
  if (!positions.empty()) return "";
  for (const auto& [place, now] : Read(device, Known(velocities))) {
    if (now != 0 && velocities[place] != 0) {
      return "the drive moves: " + NameObject(place.first, place.second) + " is not 0";
    }
    velocities[place] = now;
  }
  return "";
}

}  // namespace

std::string WhyNotNow(ConfigDevice& device, std::chrono::milliseconds patience) {
  Values positions =
      Read(device, Places({{0x6064, 0}, {0x6063, 0}}, &motor_driver::Make::positions));
  Values velocities;
  if (positions.empty()) {
    velocities = Read(device, Places({{0x606C, 0}}, &motor_driver::Make::velocities));
  }
  for (const auto until = Clock::now() + patience;;) {
    std::string why = device.Disturbance();
    if (why.empty()) why = Enabled(device);
    if (!why.empty()) return why;
    if (Clock::now() >= until) return "";
    std::this_thread::sleep_for(kBetween);
    why = Moving(device, positions, velocities);
    if (!why.empty()) return why;
  }
}

}  // namespace motorctl
