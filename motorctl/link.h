// What the kernel tells about a network interface, most of it as the program ip prints it.
#pragma once

#include <optional>
#include <string>

namespace motorctl {

struct Link {
  bool is_can = false;
  bool up = false;
  std::string kind;  // "can" for real hardware; "vcan", "vxcan", ...
  int queue_length = 0;
  // Of real hardware only.
  std::optional<int> bitrate;
  std::optional<int> restart_ms;
  std::string bus_state;  // "ERROR-ACTIVE", ...; empty when not told
  std::optional<int> transmit_errors;
  std::optional<int> receive_errors;
};

// Asks the kernel, at once. False when there is no such interface.
bool IsUp(const std::string& interface);

// Nothing when there is no such interface; throws CommandFailed when ip cannot be asked.
// `interface` was checked to hold no character that a shell would take for its own.
std::optional<Link> FindLink(const std::string& interface);

// The first element of what `ip -json -details link show` printed.
std::optional<Link> ParseLink(const std::string& json);

}  // namespace motorctl
