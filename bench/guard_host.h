// A host as guards meet it, a process of its own: it turns the wheel of node 1 on can0 through
// `Wheels`, and hangs when told to.
#pragma once

#include <chrono>
#include <string>

namespace guard_host {

constexpr double kRpm = 60;
constexpr std::chrono::milliseconds kPeriod{10};
constexpr std::chrono::milliseconds kCommandTimeout{100};

// Commands until it dies. SIGUSR1: no more, while its other threads live; the time of the last
// command is written to kTimeDescriptor. SIGSYS: the thread that gets it hangs.
[[noreturn]] void Run(const std::string& make, std::chrono::milliseconds drive_watchdog);

}  // namespace guard_host
