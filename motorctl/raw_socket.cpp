#include "raw_socket.h"

#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace motorctl {
namespace {

std::system_error Failure(int error) { return {error, std::generic_category()}; }

}  // namespace

RawSocket::RawSocket(const std::string& interface, const can_filter& filter, can_err_mask_t errors)
    : socket_(::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW)) {
  if (socket_ < 0) throw Failure(errno);
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  // Index 0 would mean every interface.
  if (address.can_ifindex == 0) errno = ENODEV;
  if (address.can_ifindex == 0 ||
      ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof(filter)) != 0 ||
      ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errors, sizeof(errors)) != 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    ::close(socket_);
    throw Failure(error);
  }
}

RawSocket::~RawSocket() { ::close(socket_); }

void RawSocket::Set(int level, int option, int value) const {
  if (::setsockopt(socket_, level, option, &value, sizeof(value)) != 0) throw Failure(errno);
}

}  // namespace motorctl
