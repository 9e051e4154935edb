#include "sim/replay_on_bus.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <set>
#include <system_error>
#include <vector>

#include "sim/can_socket.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

// When the kernel has no room for a frame.
constexpr Time kSendRetry = std::chrono::milliseconds(1);

// Those of the recorded host that the socket does not hear by itself.
std::vector<std::uint32_t> FurtherIdentifiers(const Recording& recording) {
  std::set<std::uint32_t> ids;
  for (const Recording::Line& line : recording.lines) {
    if (line.from_host && !CanSocket::HearsByDefault(line.frame.id)) ids.insert(line.frame.id);
  }
  return {ids.begin(), ids.end()};
}

void Await(const CanSocket& socket, Time sleep) {
  const auto nanoseconds = std::chrono::nanoseconds(std::max(sleep, Time(0)));
  const timespec timeout{0, static_cast<long>(nanoseconds.count())};
  pollfd readable = {socket.fd(), POLLIN, 0};
  if (::ppoll(&readable, 1, &timeout, nullptr) < 0 && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "waiting for the bus");
  }
}

}  // namespace

bool PlayOnBus(Replay& replay, const std::string& interface, const std::function<void()>& ready,
               const std::function<bool()>& ended) {
  CanSocket socket(interface);
  socket.ListenTo(FurtherIdentifiers(replay.recording()));
  ready();
  const auto start = Clock::now();
  const auto now = [start] { return std::chrono::duration_cast<Time>(Clock::now() - start); };
  std::deque<Frame> to_send;
  const FrameSink send = [&to_send](const Frame& frame) { to_send.push_back(frame); };
  while (!ended()) {
    while (const auto frame = socket.Read()) replay.Hear(*frame, now());
    replay.Advance(now(), send);
    while (!to_send.empty() && socket.Write(to_send.front())) to_send.pop_front();
    if (to_send.empty() && replay.Over(now())) return true;
    const Time next = replay.NextEvent(now()) - now();
    Await(socket, to_send.empty() ? next : std::min(next, kSendRetry));
  }
  return false;
}

}  // namespace sim
