// A raw socket that only listens: what the library's interface has no way to show. It never sends.
#pragma once

#include <linux/can.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "raw_socket.h"

namespace motorctl {

struct HeardFrame {
  double second = 0;  // since the epoch, stamped by the kernel
  can_frame frame = {};

  bool is_error() const { return (frame.can_id & CAN_ERR_FLAG) != 0; }
  // No flags: a plain data frame with an 11-bit identifier.
  bool is_data() const {
    return (frame.can_id & (CAN_EFF_FLAG | CAN_RTR_FLAG | CAN_ERR_FLAG)) == 0;
  }
};

class Listener {
 public:
  // Throws CommandFailed when the interface cannot be listened on. Hears the data frames whose
  // identifier is `id` in the bits of `mask`; no mask: everything, error frames included.
  explicit Listener(const std::string& interface, canid_t id = 0, canid_t mask = 0);

  // Waits for a frame; false when none came in time. Throws CommandFailed when the interface went
  // down or away.
  bool Hear(HeardFrame& heard, std::chrono::milliseconds timeout);

  // Becomes readable when a frame waits, or the interface fails.
  int descriptor() const { return socket_.descriptor(); }

 private:
  RawSocket socket_;
};

// Little-endian value of `bytes` bytes at `offset`; 0 where the frame is too short for it.
std::uint32_t Load(const can_frame& frame, unsigned offset, unsigned bytes);

}  // namespace motorctl
