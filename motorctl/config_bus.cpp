#include "config_bus.h"

#include <poll.h>

#include <algorithm>

#include "config_pdo.h"
#include "identifiers.h"
#include "terminal.h"
#include "words.h"

namespace motorctl {
namespace {

using std::chrono::milliseconds;

constexpr canid_t kFirstPdo = 0x200;
constexpr canid_t kLastPdo = 0x500;
constexpr unsigned kPdos = 512;
// Of records between two that a drive has.
constexpr unsigned kLongestGap = 16;
constexpr std::uint8_t kStart = 1;
constexpr std::uint8_t kOperational = 5;
constexpr milliseconds kStoring{10'000};

// Whoever read standard output has gone away.
bool NobodyReadsOutput() {
  pollfd output = {DataDescriptor(), 0, 0};
  return ::poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0;
}

}  // namespace

BusDevice::BusDevice(const std::string& interface, int node, milliseconds timeout,
                     std::function<bool()> interrupted)
    : interface_(interface),
      node_(node),
      interrupted_(std::move(interrupted)),
      client_(interface, timeout),
      tap_(interface) {
  tap_.Open();
  if (tap_.hears_sent())
    client_.set_sent([this](const can_frame& frame) { ours_.push_back(frame); });
  // All that is the node's by the usual identifiers: boot-up, requests to it, its PDOs.
  listeners_.push_back(
      std::make_unique<Listener>(interface, static_cast<canid_t>(node), kNodeMask));
  for (canid_t base = kFirstPdo; base <= kLastPdo; base += 0x100) {
    pdos_.push_back(base + static_cast<canid_t>(node));
  }
}

SdoAnswer BusDevice::Read(std::uint16_t index, std::uint8_t sub) {
  return client_.Upload(node_, index, sub);
}

SdoAnswer BusDevice::Write(std::uint16_t index, std::uint8_t sub, const Bytes& bytes) {
  return client_.Download(node_, index, sub, bytes);
}

SdoAnswer BusDevice::Store() {
  const milliseconds usual = client_.timeout();
  client_.set_timeout(std::max(usual, kStoring));
  SdoAnswer answer = client_.Download(node_, 0x1010, 1, {'s', 'a', 'v', 'e'});
  client_.set_timeout(usual);
  return answer;
}

void BusDevice::Watch(canid_t pdo) {
  if (std::find(pdos_.begin(), pdos_.end(), pdo) != pdos_.end()) return;
  pdos_.push_back(pdo);
  if ((pdo & kNodeMask) == static_cast<canid_t>(node_)) return;  // is heard
  listeners_.push_back(std::make_unique<Listener>(interface_, pdo, CAN_SFF_MASK));
}

void BusDevice::RefuseOtherHosts() {
  unsigned absent = 0;
  for (unsigned number = 0; number < kPdos; ++number) {
    const auto index = static_cast<std::uint16_t>(0x1400 + number);
    const SdoAnswer answer = client_.Upload(node_, index, kPdoCobId);
    absent = answer.ok() ? 0 : absent + 1;
    if (!answer.heard() || absent > kLongestGap) break;
    if (!answer.ok()) continue;
    if (const auto identifier = IdentifierOf(answer.number())) Watch(*identifier);
  }
  refuses_others_ = true;
  other_host_.clear();
}

std::string BusDevice::Disturbance() {
  for (const auto& listener : listeners_) {
    for (HeardFrame heard; listener->Hear(heard, milliseconds(0));) {
      if (heard.is_data()) Hear(heard.frame);
    }
  }
  const auto take = [this](const BusFrame& frame) { HearHost(frame); };
  tap_.Take(take);
  tap_.TakeHeld(take);
  if (interrupted_()) return "interrupted";
  if (NobodyReadsOutput()) return "nobody reads standard output any more";
  if (booted_up_) return "node " + std::to_string(node_) + " booted up in the middle";
  return refuses_others_ ? other_host_ : "";
}

// What no listener hears: hosts on this machine that do not hear themselves, and commands to all.
void BusDevice::HearHost(const BusFrame& frame) {
  if (frame.id == 0 && frame.length == 2 && frame.data[0] == kStart &&
      (frame.data[1] == 0 || frame.data[1] == node_)) {
    other_host_ = "another host starts node " + std::to_string(node_);
  } else if (!frame.sent) {
    return;
  } else if (frame.id != kSdoRequest + static_cast<canid_t>(node_)) {
    HearPdo(frame.id);
  } else if (!IsOurs(frame)) {
    HearRequest();
  }
}

// What is sent is heard in the order in which we sent it; what is missing was dropped on its way.
// Each of ours counts once: another program may ask for the same.
bool BusDevice::IsOurs(const BusFrame& frame) {
  const auto same = [&frame](const can_frame& sent) {
    return sent.can_id == frame.id && sent.can_dlc == frame.length &&
           std::equal(sent.data, sent.data + frame.length, frame.data);
  };
  const auto found = std::find_if(ours_.begin(), ours_.end(), same);
  if (found == ours_.end()) return false;
  ours_.erase(ours_.begin(), found + 1);
  return true;
}

void BusDevice::HearRequest() {
  other_host_ = "another program writes or reads objects of node " + std::to_string(node_);
}

void BusDevice::Hear(const can_frame& frame) {
  const auto node = static_cast<canid_t>(node_);
  if (frame.can_id == kHeartbeat + node && frame.can_dlc == 1) {
    const std::uint8_t state = frame.data[0] & 0x7F;
    booted_up_ = booted_up_ || state == 0;
    not_operational_ = state != 0 && state != kOperational;
  } else if (frame.can_id == kSdoRequest + node) {
    HearRequest();
  } else {
    HearPdo(frame.can_id);
  }
}

void BusDevice::HearPdo(canid_t id) {
  if (not_operational_ || std::find(pdos_.begin(), pdos_.end(), id) == pdos_.end()) return;
  other_host_ =
      "another host drives node " + std::to_string(node_) + ": PDO " + Hex(id, 3) + " comes";
}

}  // namespace motorctl
