// What in the traffic of a bus is worth a record of what led to it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "bus_tap.h"
#include "rhythm.h"
#include "wheels/makes.h"

namespace motorctl {

struct BusEvent {
  std::int64_t nanoseconds = 0;  // since the epoch
  std::string kind;              // names of events.jsonl; they stay
  int node = 0;                  // 0: none
  std::string text;
  std::string frame;     // empty when it is not a frame's
  bool triggers = true;  // false: worth a line, but nothing is wrong
};

class TriggerWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // `make`: nullptr where PDOs are not to be taken apart.
  TriggerWatch(const motor_driver::Make* make, std::function<void(const BusEvent&)> tell);

  // `now`: when it was read; what is overdue does not depend on a clock that is set.
  void Hear(const BusFrame& frame, Clock::time_point now);
  // After everything that had arrived by `now` was heard.
  void Tick(Clock::time_point now);
  // Nothing is known any more: the bus was not heard for a while.
  void Forget() { nodes_.clear(); }

 private:
  struct Request {
    Clock::time_point since;
    bool reads = false;
  };
  struct Node {
    bool heard = false;
    bool operational = false;
    std::optional<Clock::time_point> reset;  // by a host, and not booted since
    Rhythm heartbeat;
    // SDO requests that are not answered, by their objects: hosts ask for the next one before.
    std::map<std::uint32_t, Request> requests;
    std::uint32_t errors[motor_driver::kMaxMotors] = {};
  };

  void Tell(const char* kind, int node, const std::string& text, const BusFrame* frame,
            bool triggers = true);
  void TellMeaning(const char* kind, int node, const BusFrame& frame, bool triggers = true);
  void HearNmt(const BusFrame& frame, Clock::time_point now);
  void HearHeartbeat(Node& node, int id, const BusFrame& frame, Clock::time_point now);
  void HearSdo(Node& node, int id, const BusFrame& frame, Clock::time_point now);
  void TellTimeouts(Node& node, int id, Clock::time_point now);
  void HearErrorCode(Node& node, int id, const BusFrame& frame);

  const motor_driver::Make* const make_;
  const std::function<void(const BusEvent&)> tell_;
  std::map<int, Node> nodes_;
};

}  // namespace motorctl
