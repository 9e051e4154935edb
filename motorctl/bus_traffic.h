// What goes over a bus in both directions, and what its controller says.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "bus_tap.h"

namespace motorctl {

class BusTraffic {
 public:
  // `hears_sent`: see BusTap.
  BusTraffic(std::string interface, bool hears_sent);

  void Hear(const BusFrame& frame);

  // Of the time since it was shown last; asks the controller where there is one. Throws
  // CommandFailed when the program ip cannot be asked.
  void Measure(double seconds);
  // One line for the bus, one for the controller where there is one, one for each kind of error frame.
  std::vector<std::string> Lines() const;
  nlohmann::ordered_json Json() const;

 private:
  struct Counts {
    int frames = 0;
    int sent = 0;  // by this machine, of the frames
    unsigned long bits = 0;
    int error_frames = 0;
    std::map<std::string, int> errors;  // in words
  };

  const std::string interface_;
  const bool hears_sent_;
  Counts counts_;    // since it was shown
  Counts measured_;  // what is shown
  double seconds_ = 1;
  std::optional<int> bitrate_;
  bool has_controller_ = false;
  std::string bus_state_;
  std::optional<int> transmit_errors_;
  std::optional<int> receive_errors_;
};

}  // namespace motorctl
