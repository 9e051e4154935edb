#include "sim/can_socket.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace sim {
namespace {

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

// What drives send: transmit PDOs, SDO replies and heartbeats. Many drives on one interface would
// otherwise wake each other up with every frame.
constexpr canid_t kSentByDrives[] = {0x180, 0x280, 0x380, 0x480, 0x580, 0x700};
constexpr canid_t kFunctionCode = 0x780;

void IgnoreOtherDrives(int fd) {
  can_filter filters[std::size(kSentByDrives)];
  std::transform(std::begin(kSentByDrives), std::end(kSentByDrives), filters, [](canid_t function) {
    return can_filter{function | CAN_INV_FILTER, kFunctionCode};
  });
  const int all_must_match = 1;
  if (::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_JOIN_FILTERS, &all_must_match, sizeof all_must_match) !=
          0 ||
      ::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, filters, sizeof filters) != 0) {
    Throw(errno, "CAN filters");
  }
}

int OpenSocket() {
  const int fd = ::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW);
  if (fd < 0) Throw(errno, "CAN socket");
  return fd;
}

}  // namespace

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

CanSocket::CanSocket(const std::string& interface) : fd_(OpenSocket()) {
  ifreq request{};
  if (interface.empty() || interface.size() >= sizeof request.ifr_name) {
    Throw(ENODEV, "interface " + interface);
  }
  std::copy(interface.begin(), interface.end(), request.ifr_name);
  if (::ioctl(fd(), SIOCGIFINDEX, &request) != 0) Throw(errno, "interface " + interface);

  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = request.ifr_ifindex;
  IgnoreOtherDrives(fd());
  if (::bind(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Throw(errno, "interface " + interface);
  }
  if (::ioctl(fd(), SIOCGIFFLAGS, &request) != 0) Throw(errno, "interface " + interface);
  if ((request.ifr_flags & IFF_UP) == 0) Throw(ENETDOWN, "interface " + interface);
}

std::optional<Frame> CanSocket::Read() {
  for (;;) {
    can_frame raw{};
    const ssize_t size = ::read(fd(), &raw, sizeof raw);
    if (size < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == ENETDOWN) return std::nullopt;
      Throw(errno, "reading from the bus");
    }
    const bool plain = (raw.can_id & (CAN_EFF_FLAG | CAN_RTR_FLAG | CAN_ERR_FLAG)) == 0;
    if (size != static_cast<ssize_t>(sizeof raw) || !plain) continue;
    Frame frame;
    frame.id = raw.can_id;
    frame.length = std::min<std::uint8_t>(raw.can_dlc, 8);
    std::copy_n(raw.data, frame.length, frame.data.begin());
    return frame;
  }
}

bool CanSocket::Write(const Frame& frame) {
  can_frame raw{};
  raw.can_id = frame.id;
  raw.can_dlc = frame.length;
  std::copy_n(frame.data.begin(), frame.length, raw.data);
  for (;;) {
    if (::write(fd(), &raw, sizeof raw) >= 0 || errno == ENETDOWN) return true;
    if (errno == EAGAIN || errno == ENOBUFS) return false;
    if (errno != EINTR) Throw(errno, "writing to the bus");
  }
}

}  // namespace sim
