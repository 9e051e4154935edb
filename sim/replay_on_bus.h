#pragma once

#include <functional>
#include <string>

#include "sim/replay.h"

namespace sim {

/// Plays it on an interface until it is over (true), or until `ended` says so, which is asked all the
/// time. Throws std::system_error, and Divergence when the host does something else.
bool PlayOnBus(Replay& replay, const std::string& interface, const std::function<void()>& ready,
               const std::function<bool()>& ended);

}  // namespace sim
