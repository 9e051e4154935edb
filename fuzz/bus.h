// A bus without a kernel that has SocketCAN, and without the right to make an interface: sanitized
// programs run nowhere else at full speed.
//
// bus.cpp replaces two system calls in the program: a CAN socket that the library opens is one end
// of a socket pair, and binding it succeeds. Everything above is the library's own: its read, its
// receive thread, its queue.
#pragma once

#include <driver_common.h>
#include <semaphore.h>

#include <cstdint>

namespace fuzz {

// For a device that has an interface index; every machine has this one.
constexpr char kDevice[] = "lo";

// The far end of the socket of one drive object. Outlives it.
class FarEnd {
 public:
  // Right after `drive` was constructed on kDevice, and before another one is. Registers the
  // identifier of Flush() as a heartbeat.
  explicit FarEnd(DriverCommon& drive);
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  void Send(const CanFrame& frame) const;
  // Blocks until the drive sends one.
  CanFrame Receive() const;
  // Waits until the receive thread has dealt with every frame sent before.
  void Flush();

 private:
  int socket_;
  sem_t flushed_ = {};
};

}  // namespace fuzz
