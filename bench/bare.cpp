#include "bare.h"

#include <linux/can/raw.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/time.h>

#include <cerrno>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

RawCan::RawCan(const std::string& interface, bool loopback)
    : socket_(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)) {
  if (socket_ < 0) {
    Fail("no CAN socket");
  }
  const int on = loopback ? 1 : 0;
  ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_LOOPBACK, &on, sizeof(on));
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  if (address.can_ifindex == 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    const int error = errno;
    ::close(socket_);
    errno = error;
    Fail("cannot open CAN interface " + interface);
  }
}

void RawCan::HearOnly(std::uint32_t can_id) {
  const can_filter filter = {can_id, CAN_SFF_MASK};
  ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof(filter));
}

void RawCan::HearNothing() {
  ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0);
  DropPending();
}

void RawCan::DropPending() {
  can_frame dropped = {};
  while (TryReceive(dropped)) {
  }
}

void RawCan::GiveUpAfterOneSecond() {
  const timeval second = {1, 0};
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof(second));
}

BareReader::BareReader(const std::string& interface, bool queueing)
    : can_(interface, false), thread_(&BareReader::Run, this, queueing) {}

BareReader::~BareReader() {
  ::pthread_cancel(thread_.native_handle());
  thread_.join();
}

bool BareReader::Take(can_frame& frame) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (queue_.empty()) {
    return false;
  }
  frame = queue_.front();
  queue_.pop_front();
  return true;
}

std::uint64_t BareReader::TakeAll() {
  std::uint64_t taken = counted_.exchange(0, std::memory_order_relaxed);
  can_frame frame = {};
  while (Take(frame)) {
    ++taken;
  }
  return taken;
}

std::uint64_t BareReader::queued() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return queue_.size();
}

clockid_t BareReader::cpu_clock() {
  clockid_t clock = 0;
  ::pthread_getcpuclockid(thread_.native_handle(), &clock);
  return clock;
}

void BareReader::Run(bool queueing) {
  can_frame frame = {};
  while (can_.Receive(frame)) {
    if (queueing) {
      const std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(frame);
    } else {
      counted_.fetch_add(1, std::memory_order_relaxed);
    }
  }
}
