// A raw CAN socket on one interface.
#pragma once

#include <linux/can.h>
#include <linux/can/raw.h>

#include <string>

namespace motorctl {

class RawSocket {
 public:
  // Hears what the filter lets through. Throws std::system_error.
  RawSocket(const std::string& interface, const can_filter& filter, can_err_mask_t errors = 0);
  ~RawSocket();
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;

  int descriptor() const { return socket_; }

  // Sets an option that is a number.
  void Set(int level, int option, int value) const;

 private:
  int socket_;
};

}  // namespace motorctl
