#include "bus_traffic.h"

#include <linux/can.h>

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "bus_load.h"
#include "decode.h"
#include "link.h"

namespace motorctl {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr std::size_t kMostErrors = 8;

double Rounded(double value) { return std::round(value * 10) / 10; }

template <typename Value>
OrderedJson OrNull(const std::optional<Value>& value) {
  return value ? OrderedJson(*value) : OrderedJson(nullptr);
}

}  // namespace

BusTraffic::BusTraffic(std::string interface, bool hears_sent)
    : interface_(std::move(interface)), hears_sent_(hears_sent) {
  if (const std::optional<Link> link = FindLink(interface_)) {
    bitrate_ = link->bitrate;
    has_controller_ = !link->bus_state.empty();
  }
}

void BusTraffic::Hear(const BusFrame& frame) {
  if ((frame.id & CAN_ERR_FLAG) != 0) {
    ++counts_.error_frames;
    const std::string text = DecodeErrorFrame(Logged(frame)).text;
    if (counts_.errors.size() < kMostErrors || counts_.errors.count(text) != 0) {
      ++counts_.errors[text];
    }
    return;
  }
  const bool extended = (frame.id & CAN_EFF_FLAG) != 0;
  ++counts_.frames;
  counts_.sent += frame.sent ? 1 : 0;
  counts_.bits += BitsOnTheWire(frame.id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK), extended,
                                (frame.id & CAN_RTR_FLAG) != 0, frame.data, frame.length);
}

void BusTraffic::Measure(double seconds) {
  measured_ = std::exchange(counts_, Counts());
  seconds_ = seconds;
  if (!has_controller_) return;
  if (const std::optional<Link> link = FindLink(interface_)) {
    bus_state_ = link->bus_state;
    transmit_errors_ = link->transmit_errors;
    receive_errors_ = link->receive_errors;
  }
}

std::vector<std::string> BusTraffic::Lines() const {
  char text[160];
  std::snprintf(text, sizeof(text), "%s: %.0f frames/s, ", interface_.c_str(),
                measured_.frames / seconds_);
  std::string bus = text;
  std::snprintf(text, sizeof(text), "%.0f of them sent here, ", measured_.sent / seconds_);
  bus += hears_sent_ ? text : "what this machine sends is not heard (CAP_NET_RAW), ";
  bus += std::to_string(measured_.error_frames) + " error frames, bus load ";
  const double bits_per_s = static_cast<double>(measured_.bits) / seconds_;
  if (bitrate_ && *bitrate_ > 0) {
    std::snprintf(text, sizeof(text), "%.1f %%", 100 * bits_per_s / *bitrate_);
  } else {
    std::snprintf(text, sizeof(text), "%.1f kbit/s (no bit rate)", bits_per_s / 1000);
  }
  std::vector<std::string> lines = {bus + text};
  if (has_controller_) {
    std::string line = "controller " + bus_state_;
    if (transmit_errors_ && receive_errors_) {
      line += ", error counters: transmit " + std::to_string(*transmit_errors_) + ", receive " +
              std::to_string(*receive_errors_);
    }
    lines.push_back(line);
  }
  for (const auto& [error, count] : measured_.errors) {
    lines.push_back(std::to_string(count) + " x " + error);
  }
  return lines;
}

OrderedJson BusTraffic::Json() const {
  const double bits_per_s = static_cast<double>(measured_.bits) / seconds_;
  std::optional<double> load;
  if (bitrate_ && *bitrate_ > 0) load = Rounded(100 * bits_per_s / *bitrate_);
  std::optional<double> sent;
  if (hears_sent_) sent = Rounded(measured_.sent / seconds_);
  std::optional<std::string> state;
  if (has_controller_) state = bus_state_;
  OrderedJson errors = OrderedJson::object();
  for (const auto& [error, count] : measured_.errors) errors[error] = count;
  return OrderedJson{{"command", "monitor"},
                     {"event", "bus"},
                     {"frames_per_s", Rounded(measured_.frames / seconds_)},
                     {"sent_frames_per_s", OrNull(sent)},
                     {"error_frames", measured_.error_frames},
                     {"errors", errors},
                     {"bits_per_s", std::round(bits_per_s)},
                     {"bus_load_percent", OrNull(load)},
                     {"controller_state", OrNull(state)},
                     {"transmit_errors", OrNull(transmit_errors_)},
                     {"receive_errors", OrNull(receive_errors_)}};
}

}  // namespace motorctl
