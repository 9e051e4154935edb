#include "bus.h"

#include <linux/can.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "input.h"

namespace {

int g_far_end_of_last_socket = -1;

}  // namespace

extern "C" {

// Called by the library in place of those of the C library.

int socket(int domain, int type, int protocol) noexcept {
  if (domain != PF_CAN) {
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
  }
  int ends[2] = {-1, -1};
  fuzz::Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  g_far_end_of_last_socket = ends[1];
  return ends[0];
}

int bind(int, const sockaddr*, socklen_t) noexcept { return 0; }

// A wait for an answer looks again almost at once instead of a millisecond later. Not by giving up
// the processor: on a busy machine that lasts far longer.
int nanosleep(const timespec*, timespec*) {
  constexpr timespec kAlmostAtOnce = {0, 10'000};
  return ::clock_nanosleep(CLOCK_MONOTONIC, 0, &kAlmostAtOnce, nullptr);
}

}  // extern "C"

namespace fuzz {

FarEnd::FarEnd(DriverCommon& drive) : socket_(g_far_end_of_last_socket) {
  Require(drive.GetCanError() == 0, "the drive is open");
  ::sem_init(&flushed_, 0, 0);
  drive.AddHeartbeatCallback(kFlush, [this](HeartbeatTimeout&) { ::sem_post(&flushed_); });
}

void FarEnd::Send(const CanFrame& frame) const {
  can_frame raw = {};
  raw.can_id = frame.can_id;
  raw.can_dlc = frame.len;
  std::copy_n(frame.data, sizeof(frame.data), raw.data);
  Require(::write(socket_, &raw, sizeof(raw)) == sizeof(raw), "the far end sends");
}

CanFrame FarEnd::Receive() const {
  can_frame raw = {};
  Require(::read(socket_, &raw, sizeof(raw)) == sizeof(raw), "the far end receives");
  CanFrame frame = {};
  frame.can_id = raw.can_id;
  frame.len = raw.can_dlc;
  std::copy_n(raw.data, sizeof(frame.data), frame.data);
  return frame;
}

void FarEnd::Flush() {
  CanFrame last = {};
  last.can_id = kFlush;
  Send(last);
  while (::sem_wait(&flushed_) != 0) {
  }
}

}  // namespace fuzz
