#include "listener.h"

#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "context.h"

namespace motorctl {
namespace {

CommandFailed Failure(const std::string& interface) {
  return CommandFailed("cannot listen on " + interface + ": " +
                       std::generic_category().message(errno));
}

}  // namespace

Listener::Listener(const std::string& interface, canid_t only_id)
    : socket_(::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW)) {
  if (socket_ < 0) throw Failure(interface);
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  const can_err_mask_t errors = only_id == 0 ? CAN_ERR_MASK : 0;
  const can_filter filter = {only_id,
                             only_id == 0 ? 0 : CAN_SFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG};
  const int enabled = 1;
  // Index 0 would mean every interface.
  if (address.can_ifindex == 0) errno = ENODEV;
  if (address.can_ifindex == 0 ||
      ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof(filter)) != 0 ||
      ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errors, sizeof(errors)) != 0 ||
      ::setsockopt(socket_, SOL_SOCKET, SO_TIMESTAMP, &enabled, sizeof(enabled)) != 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    ::close(socket_);
    errno = error;
    throw Failure(interface);
  }
}

Listener::~Listener() { ::close(socket_); }

bool Listener::Hear(HeardFrame& heard, std::chrono::milliseconds timeout) {
  pollfd descriptor = {socket_, POLLIN, 0};
  if (::poll(&descriptor, 1, static_cast<int>(timeout.count())) <= 0) return false;
  iovec data = {&heard.frame, sizeof(heard.frame)};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t bytes = ::recvmsg(socket_, &message, 0);
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
