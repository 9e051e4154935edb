// Tells whoever started this process that its control thread lives (the protocol of sd_notify).
#pragma once

#include <chrono>
#include <string_view>

#include "wheels/notify_protocol.h"

namespace motor_driver {

class Notifier {
 public:
  using Clock = std::chrono::steady_clock;

  // Looks at NOTIFY_SOCKET and WATCHDOG_USEC.
  Notifier();
  ~Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  // "WATCHDOG=1", when it is due. Never waits: sd_notify() itself does, for a receiver that hangs,
  // and would hold up the one thread that may not be.
  void Alive(Clock::time_point now);

  // No wheel is driven any more: what comes next may take as long as it likes.
  void Over();

 private:
  void Send(std::string_view text);

  NotifyAddress address_;
  int socket_ = -1;  // -1: nobody wants to know
  Clock::duration interval_;
  Clock::time_point next_;
};

}  // namespace motor_driver
