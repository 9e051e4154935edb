#include "listener.h"

#include <linux/can/error.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <system_error>

#include "context.h"

namespace motorctl {

Listener::Listener(const std::string& interface, canid_t id, canid_t mask) try
    : socket_(interface, {id, mask == 0 ? 0 : mask | CAN_EFF_FLAG | CAN_RTR_FLAG},
              mask == 0 ? CAN_ERR_MASK : 0) {
  socket_.Set(SOL_SOCKET, SO_TIMESTAMP, 1);
} catch (const std::system_error& error) {
  throw CommandFailed("cannot listen on " + interface + ": " + error.code().message());
}

bool Listener::Hear(HeardFrame& heard, std::chrono::milliseconds timeout) {
  pollfd descriptor = {socket_.descriptor(), POLLIN, 0};
  if (::poll(&descriptor, 1, static_cast<int>(timeout.count())) <= 0) return false;
  iovec data = {&heard.frame, sizeof(heard.frame)};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t bytes = ::recvmsg(socket_.descriptor(), &message, 0);
  if (bytes < 0 && (errno == EAGAIN || errno == EINTR)) return false;
  if (bytes != sizeof(heard.frame)) {
    throw CommandFailed("the interface went away while listening: " +
                        std::generic_category().message(errno));
  }
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_TIMESTAMP) {
      const auto* const stamp = reinterpret_cast<const timeval*>(CMSG_DATA(header));
      heard.second =
          static_cast<double>(stamp->tv_sec) + static_cast<double>(stamp->tv_usec) * 1e-6;
    }
  }
  return true;
}

std::uint32_t Load(const can_frame& frame, unsigned offset, unsigned bytes) {
  if (offset + bytes > frame.can_dlc || frame.can_dlc > CAN_MAX_DLEN) return 0;
  std::uint32_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) {
    value |= static_cast<std::uint32_t>(frame.data[offset + i]) << (8U * i);
  }
  return value;
}

}  // namespace motorctl
