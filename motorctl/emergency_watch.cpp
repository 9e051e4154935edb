#include "emergency_watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

#include "decode.h"
#include "identifiers.h"

namespace motorctl {

EmergencyWatch::EmergencyWatch(const Context& context)
    : context_(context), end_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  try {
    listener_.emplace(context.vehicle.interface, kEmergency, kFunctionMask);
  } catch (const CommandFailed&) {
    return;
  }
  sigset_t all = {};
  sigset_t previous = {};
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  thread_ = std::thread([this] { Run(); });
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

EmergencyWatch::~EmergencyWatch() {
  ::eventfd_write(end_, 1);
  if (thread_.joinable()) thread_.join();
  ::close(end_);
}

void EmergencyWatch::Run() {
  pollfd waited[] = {{listener_->descriptor(), POLLIN, 0}, {end_, POLLIN, 0}};
  HeardFrame heard;
  try {
    do {
      ::poll(waited, 2, -1);
      while (listener_->Hear(heard, std::chrono::milliseconds(0))) Hear(heard.frame);
    } while (waited[1].revents == 0);
  } catch (const CommandFailed&) {
    // The interface went away, which the command tells.
  }
}

void EmergencyWatch::Hear(const can_frame& frame) {
  const canid_t node = frame.can_id - kEmergency;
  if (node == 0 || frame.can_dlc != CAN_MAX_DLEN) return;  // SYNC has the identifier of node 0
  std::uint64_t data = 0;
  for (const std::uint8_t byte : frame.data) data = data << 8U | byte;
  const auto [last, first] = last_.try_emplace(node, 0);
  const bool known = last->second == data;
  last->second = data;
  const bool nothing_to_end = first && Load(frame, 0, 2) == 0;
  if (known || nothing_to_end) return;
  context_.Say("emergency of node " + std::to_string(node) + ": " +
               DecodeEmergency(frame.data).text);
}

}  // namespace motorctl
