#include "guard_wire.h"

#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace {

constexpr canid_t kRpdo = 0x201;
constexpr canid_t kSdoRequest = 0x601;
constexpr canid_t kHostHeartbeat = 0x77F;
constexpr auto kPatience = std::chrono::seconds(2);

}  // namespace

// From the manuals of the drives, never from the library.
const Wire::TargetFrames Wire::kTargets[] = {{"zl", 0x60FF, 1, true},
                                             {"tt", 0x60FF, 0, true},
                                             {"hls", 0x60FF, 0, true},
                                             {"amps", 0x2FF0, 9, false},
                                             {"kinco", 0x60FF, 0, true}};

Wire::Wire(const std::string& make) {
  target_ = std::find_if(std::begin(kTargets), std::end(kTargets),
                         [&](const TargetFrames& target) { return make == target.make; });
  if (target_ == std::end(kTargets)) throw std::runtime_error("no simulated drive is a " + make);
  socket_ = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex("can1"));
  const can_filter filters[] = {
      {kRpdo, CAN_SFF_MASK}, {kSdoRequest, CAN_SFF_MASK}, {kHostHeartbeat, CAN_SFF_MASK}};
  const timeval patience = {kPatience.count(), 0};
  ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, filters, sizeof(filters));
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(socket_);
    throw std::runtime_error("there is no can1");
  }
}

Wire::~Wire() { ::close(socket_); }

void Wire::Forget() const { TakeHeartbeat(); }

std::optional<Wire::Clock::time_point> Wire::TakeHeartbeat() const {
  std::optional<Clock::time_point> heard;
  can_frame frame = {};
  while (::recv(socket_, &frame, sizeof(frame), MSG_DONTWAIT) > 0) {
    if (frame.can_id == kHostHeartbeat) heard = Clock::now();
  }
  return heard;
}

std::optional<int> Wire::TargetOf(const can_frame& frame) const {
  constexpr int kSize4 = 0x23;
  constexpr int kSize2 = 0x2B;
  const std::uint8_t* value = nullptr;
  std::size_t size = sizeof(std::int32_t);
  if (frame.can_id == kRpdo && target_->by_rpdo) {
    value = frame.data;
  } else if (frame.can_id == kSdoRequest && (frame.data[0] == kSize4 || frame.data[0] == kSize2) &&
             (frame.data[1] | frame.data[2] << 8U) == static_cast<int>(target_->index) &&
             frame.data[3] == target_->sub) {
    value = frame.data + 4;
    if (frame.data[0] == kSize2) size = sizeof(std::int16_t);
  } else {
    return std::nullopt;
  }
  std::int32_t wide = 0;
  std::int16_t narrow = 0;
  std::memcpy(&wide, value, sizeof(wide));
  std::memcpy(&narrow, value, sizeof(narrow));
  return size == sizeof(wide) ? wide : narrow;
}

template <typename Wanted>
Wire::Clock::time_point Wire::Await(const char* what, Wanted wanted) const {
  const auto deadline = Clock::now() + kPatience;
  can_frame frame = {};
  while (Clock::now() < deadline && ::read(socket_, &frame, sizeof(frame)) == sizeof(frame)) {
    const std::optional<int> target = TargetOf(frame);
    if (target && wanted(std::abs(*target))) return Clock::now();
  }
  throw std::runtime_error(what);
}

Wire::Clock::time_point Wire::AwaitZero() const {
  return Await("no zero speed within 2 s", [](int target) { return target == 0; });
}

Wire::Clock::time_point Wire::AwaitFalling() const {
  int before = 0;
  return Await("the target does not fall within 2 s",
               [&before](int target) { return target < std::exchange(before, target); });
}

void Wire::Send(const can_frame& frame) const {
  [[maybe_unused]] const ssize_t written = ::write(socket_, &frame, sizeof(frame));
}
