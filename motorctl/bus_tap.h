// Both halves of the traffic of an interface: what it received, and what this machine sent, which
// other listeners do not see where the sender switched its loop-back off. It never sends.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "candump/candump.h"

namespace motorctl {

using candump::LoggedFrame;

// As small as a frame can be kept: a recorder holds a million of them.
struct BusFrame {
  std::int64_t nanoseconds = 0;  // since the epoch, stamped by the kernel
  std::uint32_t id = 0;          // with the flags of linux/can.h
  std::uint8_t length = 0;
  bool sent = false;  // by this machine: the driver of the interface took it
  std::uint8_t data[8] = {};
};
static_assert(sizeof(BusFrame) == 24);

LoggedFrame Logged(const BusFrame& frame);

// A line of `candump -L -x`: "(1690000000.123456) can0 601#2B4060000F000000 T\n".
void AppendLogLine(const BusFrame& frame, const std::string& interface, std::string& text);

// The clock of the time stamps.
std::int64_t WallClockNanoseconds();

class BusTap {
 public:
  explicit BusTap(std::string interface);
  ~BusTap() { Close(); }
  BusTap(const BusTap&) = delete;
  BusTap& operator=(const BusTap&) = delete;

  // Throws CommandFailed when the interface is not there, or cannot be listened on. Frames that
  // arrive while it is closed are not heard.
  void Open();
  void Close();
  bool is_open() const { return received_ >= 0; }

  // False without the capability CAP_NET_RAW: then only what was received is heard, and what other
  // programs send with their loop-back on.
  bool hears_sent() const { return sent_ >= 0; }

  // Becomes readable when a frame waits, or the interface fails.
  int received() const { return received_; }
  int sent() const { return sent_; }

  // Hands out what has arrived, in the order of the time stamps. A frame is stamped before it can be
  // read, on a busy machine long before: what has arrived is held for a moment, until what came
  // before it must have arrived, too. False when the interface went down or away; nothing is held
  // then.
  bool Take(const std::function<void(const BusFrame&)>& take);
  // Hands out what is held.
  void TakeHeld(const std::function<void(const BusFrame&)>& take);
  bool holds_frames() const { return !held_.empty(); }

  // Frames that the kernel dropped because they were not read in time, since the first Open.
  std::uint64_t lost() const { return lost_ + lost_received_ + lost_sent_; }

 private:
  int OpenReceived(int index) const;
  int OpenSent(int index) const;
  bool Drain(int socket, bool sent, std::uint32_t& lost);
  void Hold(std::chrono::steady_clock::time_point now);

  const std::string interface_;
  int received_ = -1;
  int sent_ = -1;
  std::vector<BusFrame> arrived_received_;
  std::vector<BusFrame> arrived_sent_;
  std::deque<BusFrame> held_;  // in the order of their stamps
  struct Arrival {
    std::chrono::steady_clock::time_point time;
    std::int64_t latest_stamp = 0;  // of what arrived then
  };
  std::deque<Arrival> arrivals_;
  std::uint64_t lost_ = 0;  // of sockets that are closed
  std::uint32_t lost_received_ = 0;
  std::uint32_t lost_sent_ = 0;
};

}  // namespace motorctl
