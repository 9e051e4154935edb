// Scheduling of the threads that carry motion.
#pragma once

#include <string>

namespace motor_driver {

// SCHED_FIFO with this priority for the calling thread, and so for the threads that it starts; 0:
// stays as it is. What to do about it when the system refuses; empty otherwise.
std::string SetRealtimePriority(int priority);

}  // namespace motor_driver
