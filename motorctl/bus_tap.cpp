#include "bus_tap.h"

#include <arpa/inet.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <limits>
#include <system_error>
#include <utility>

#include "context.h"

namespace motorctl {
namespace {

constexpr std::size_t kBatch = 64;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// As much as the kernel lets anybody have, which is net.core.rmem_max.
constexpr int kBufferBytes = 8 * 1024 * 1024;
// Longer than a frame that the driver has stamped waits for the kernel to hand it on.
constexpr auto kHold = std::chrono::milliseconds(50);

struct Batch {
  can_frame frames[kBatch];
  iovec data[kBatch];
  mmsghdr messages[kBatch];
  alignas(cmsghdr) char control[kBatch]
                               [CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(std::uint32_t))];

  void Prepare() {
    for (std::size_t i = 0; i < kBatch; ++i) {
      data[i] = {&frames[i], sizeof(frames[i])};
      msghdr& header = messages[i].msg_hdr;
      header = {};
      header.msg_iov = &data[i];
      header.msg_iovlen = 1;
      header.msg_control = control[i];
      header.msg_controllen = sizeof(control[i]);
    }
  }
};

template <typename Value>
void Load(const cmsghdr* header, Value& value) {
  std::memcpy(&value, CMSG_DATA(header), sizeof(value));
}

CommandFailed Failure(const std::string& interface, int error) {
  return CommandFailed("cannot record " + interface + ": " +
                       std::generic_category().message(error));
}

// Time stamps, counts of lost frames, room.
void SetUpReading(int socket) {
  const int enabled = 1;
  const int bytes = kBufferBytes;
  ::setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &enabled, sizeof(enabled));
  ::setsockopt(socket, SOL_SOCKET, SO_RXQ_OVFL, &enabled, sizeof(enabled));
  if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) != 0) {
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
  }
}

}  // namespace

LoggedFrame Logged(const BusFrame& frame) {
  LoggedFrame logged;
  logged.extended = (frame.id & CAN_EFF_FLAG) != 0;
  logged.id = frame.id & (logged.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
  if ((frame.id & CAN_ERR_FLAG) != 0) {
    logged.kind = LoggedFrame::Kind::kError;
    logged.extended = false;
    logged.id = frame.id & CAN_ERR_MASK;
  } else if ((frame.id & CAN_RTR_FLAG) != 0) {
    logged.kind = LoggedFrame::Kind::kRemote;
  }
  logged.length = frame.length;
  std::copy_n(frame.data, sizeof(frame.data), logged.data.begin());
  return logged;
}

// By hand: a logger does hardly anything else.
void AppendLogLine(const BusFrame& frame, const std::string& interface, std::string& text) {
  char time[] = "(0000000000.000000) ";
  const auto put = [&time](std::int64_t number, int last, int digits) {
    for (; digits > 0; --digits, --last, number /= 10) {
      time[last] = static_cast<char>('0' + number % 10);
    }
  };
  put(frame.nanoseconds / kNanosecondsPerSecond, 10, 10);
  put(frame.nanoseconds % kNanosecondsPerSecond / 1000, 17, 6);
  text.append(time, sizeof(time) - 1).append(interface).append(" ");
  candump::AppendFrame(Logged(frame), text);
  text += frame.sent ? " T\n" : " R\n";
}

std::int64_t WallClockNanoseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

BusTap::BusTap(std::string interface) : interface_(std::move(interface)) {}

// Not from the packet socket as well: there the echo of a frame that this machine sent with its
// loop-back on looks like one that was received.
int BusTap::OpenReceived(int index) const {
  const int socket = ::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW);
  if (socket < 0) throw Failure(interface_, errno);
  SetUpReading(socket);
  const can_err_mask_t errors = CAN_ERR_MASK;
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = index;
  if (::setsockopt(socket, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errors, sizeof(errors)) != 0 ||
      ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    ::close(socket);
    if (error == ENODEV) {
      throw CommandFailed("cannot record " + interface_ + ": it is not a CAN interface");
    }
    throw Failure(interface_, error);
  }
  return socket;
}

// -1 without the capability.
int BusTap::OpenSent(int index) const {
  // Of no protocol: nothing is heard before the filter is in place.
  const int socket = ::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (socket < 0 && (errno == EPERM || errno == EACCES)) return -1;
  if (socket < 0) throw Failure(interface_, errno);
  SetUpReading(socket);
  sock_filter only_sent[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, sizeof(can_frame)), BPF_STMT(BPF_RET | BPF_K, 0)};
  const sock_fprog filter = {4, only_sent};
  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  // ETH_P_CAN would hear nothing that is sent.
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = index;
  if (::setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) != 0 ||
      ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    ::close(socket);
    throw Failure(interface_, error);
  }
  return socket;
}

void BusTap::Open() {
  Close();
  const int index = static_cast<int>(::if_nametoindex(interface_.c_str()));
  if (index == 0) {
    throw CommandFailed("cannot record " + interface_ +
                        ": there is no such interface; \"ip link\" lists them");
  }
  received_ = OpenReceived(index);
  try {
    sent_ = OpenSent(index);
  } catch (...) {
    Close();
    throw;
  }
}

void BusTap::Close() {
  for (int* const socket : {&received_, &sent_}) {
    if (*socket >= 0) ::close(*socket);
    *socket = -1;
  }
  lost_ += lost_received_ + lost_sent_;
  lost_received_ = lost_sent_ = 0;
}

bool BusTap::Drain(int socket, bool sent, std::uint32_t& lost) {
  static Batch batch;
  std::vector<BusFrame>& arrived = sent ? arrived_sent_ : arrived_received_;
  for (;;) {
    batch.Prepare();
    const int count = ::recvmmsg(socket, batch.messages, kBatch, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN;
    for (int i = 0; i < count; ++i) {
      mmsghdr& message = batch.messages[i];
      BusFrame frame;
      for (cmsghdr* header = CMSG_FIRSTHDR(&message.msg_hdr); header != nullptr;
           header = CMSG_NXTHDR(&message.msg_hdr, header)) {
        if (header->cmsg_level != SOL_SOCKET) continue;
        timespec stamp = {};
        if (header->cmsg_type == SO_RXQ_OVFL) Load(header, lost);
        if (header->cmsg_type != SCM_TIMESTAMPNS) continue;
        Load(header, stamp);
        frame.nanoseconds = stamp.tv_sec * kNanosecondsPerSecond + stamp.tv_nsec;
      }
      const bool echo = !sent && (message.msg_hdr.msg_flags & MSG_DONTROUTE) != 0;
      // Longer ones are of CAN FD; an echo was heard when it was sent.
      if (message.msg_len != sizeof(can_frame) || (echo && hears_sent())) continue;
      const can_frame& heard = batch.frames[i];
      frame.id = heard.can_id;
      frame.length = std::min<std::uint8_t>(heard.can_dlc, CAN_MAX_DLEN);
      frame.sent = sent || echo;
      std::copy_n(heard.data, frame.length, frame.data);
      arrived.push_back(frame);
    }
    if (count < static_cast<int>(kBatch)) return true;
  }
}

bool BusTap::Take(const std::function<void(const BusFrame&)>& take) {
  bool good = is_open();
  if (is_open()) good = Drain(received_, false, lost_received_);
  if (hears_sent()) good = Drain(sent_, true, lost_sent_) && good;
  const auto now = std::chrono::steady_clock::now();
  if (!arrived_received_.empty() || !arrived_sent_.empty()) Hold(now);
  if (!good) {
    TakeHeld(take);
    return false;
  }
  // By another clock than that of the stamps, which may be set.
  std::int64_t latest = std::numeric_limits<std::int64_t>::min();
  for (; !arrivals_.empty() && arrivals_.front().time <= now - kHold; arrivals_.pop_front()) {
    latest = std::max(latest, arrivals_.front().latest_stamp);
  }
  for (; !held_.empty() && held_.front().nanoseconds <= latest; held_.pop_front()) {
    take(held_.front());
  }
  return true;
}

// Each direction comes in its order, and mostly after what is held: then nothing is to be sorted.
void BusTap::Hold(std::chrono::steady_clock::time_point now) {
  const auto earlier = [](const BusFrame& left, const BusFrame& right) {
    return left.nanoseconds < right.nanoseconds;
  };
  for (std::vector<BusFrame>* const arrived : {&arrived_received_, &arrived_sent_}) {
    if (std::is_sorted(arrived->begin(), arrived->end(), earlier)) continue;
    std::stable_sort(arrived->begin(), arrived->end(), earlier);
  }
  const auto before = static_cast<std::ptrdiff_t>(held_.size());
  std::merge(arrived_received_.begin(), arrived_received_.end(), arrived_sent_.begin(),
             arrived_sent_.end(), std::back_inserter(held_), earlier);
  arrivals_.push_back({now, held_.back().nanoseconds});
  const auto first = held_.begin() + before;
  if (before > 0 && earlier(*first, *(first - 1))) {
    std::inplace_merge(held_.begin(), first, held_.end(), earlier);
  }
  arrived_received_.clear();
  arrived_sent_.clear();
}

void BusTap::TakeHeld(const std::function<void(const BusFrame&)>& take) {
  for (const BusFrame& frame : held_) take(frame);
  held_.clear();
  arrivals_.clear();
}

}  // namespace motorctl
