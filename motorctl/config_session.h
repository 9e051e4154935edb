// What the commands of `motorctl config` share.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "config_bus.h"
#include "config_walk.h"
#include "context.h"
#include "node_lock.h"
#include "signals.h"

namespace motorctl {

// How far a walk is, on standard error where that is a terminal.
class WalkBar {
 public:
  WalkBar(const Context& context, int node) : shown_(context.shows_progress()), node_(node) {}
  ~WalkBar() { Clear(); }
  WalkBar(const WalkBar&) = delete;
  WalkBar& operator=(const WalkBar&) = delete;

  void Show(double done, std::uint16_t index);
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;

  const bool shown_;
  const int node_;
  const Clock::time_point begin_ = Clock::now();
  Clock::time_point next_ = begin_;
  bool drawn_ = false;
};

// A node that no other motorctl saves, restores or turns meanwhile.
class ConfigSession {
 public:
  // Throws CommandFailed where another process has the node, or without the interface.
  ConfigSession(const Context& context, int node);

  BusDevice& device() { return device_; }
  int node() const { return node_; }

  // From now on signals do not end the process, but disturb the device.
  void HoldSignals() { signals_.emplace(); }

  // Of the whole drive, and of the objects of a configuration.
  ConfigWalk Walk();
  Config ReadObjects(const Config& wanted);

 private:
  const Context& context_;
  const int node_;
  const UseLock lock_;
  std::optional<EndSignals> signals_;
  BusDevice device_;
};

}  // namespace motorctl
