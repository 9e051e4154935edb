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

// What hosts send by default: NMT, SYNC and emergency, time, receive PDOs, SDO requests, and what
// CiA 301 gives to nobody. Transmit PDOs, SDO replies and heartbeats are left out: many drives on
// one interface would otherwise wake each other up with every frame.
constexpr canid_t kHeardByDefault[] = {0x000, 0x080, 0x100, 0x200, 0x300,
                                       0x400, 0x500, 0x600, 0x680, 0x780};
constexpr canid_t kKind = CAN_EFF_FLAG | CAN_RTR_FLAG;
constexpr canid_t kFunctionCode = 0x780 | kKind;
constexpr canid_t kOneIdentifier = CAN_SFF_MASK | kKind;

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
  ListenTo({});
  if (::bind(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Throw(errno, "interface " + interface);
  }
  if (::ioctl(fd(), SIOCGIFFLAGS, &request) != 0) Throw(errno, "interface " + interface);
  if ((request.ifr_flags & IFF_UP) == 0) Throw(ENETDOWN, "interface " + interface);
}

bool CanSocket::HearsByDefault(std::uint32_t id) {
  return std::any_of(std::begin(kHeardByDefault), std::end(kHeardByDefault),
                     [id](canid_t function) { return (id & kFunctionCode) == function; });
}

void CanSocket::ListenTo(const std::vector<std::uint32_t>& ids) {
  std::vector<can_filter> filters;
  for (const canid_t function : kHeardByDefault) filters.push_back({function, kFunctionCode});
  for (const std::uint32_t id : ids) filters.push_back({id, kOneIdentifier});
  const auto size = static_cast<socklen_t>(filters.size() * sizeof(can_filter));
  if (::setsockopt(fd(), SOL_CAN_RAW, CAN_RAW_FILTER, filters.data(), size) != 0) {
    Throw(errno, "CAN filters");
  }
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
