#include "wheels/realtime.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sched.h>

namespace motor_driver {

std::string SetRealtimePriority(int priority) {
  if (priority == 0) {
    return "";
  }
  sched_param parameters = {};
  parameters.sched_priority = priority;
  if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0) {
    return "";
  }
  return fmt::format(
      "the system refuses real-time priority {0}: put \"USER - rtprio {0}\" into "
      "/etc/security/limits.d/motor_driver.conf and log in again, or \"LimitRTPRIO={0}\" into the "
      "systemd unit",
      priority);
}

}  // namespace motor_driver
