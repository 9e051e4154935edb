#include "sim/pdo_engine.h"

#include <algorithm>
#include <utility>

#include "sim/pdo_layout.h"

namespace sim {

using namespace pdo;  // NOLINT(google-build-using-namespace): what this is about

namespace {

// The events of the device profile: a change of statusword or error code.
bool IsProfileEvent(std::uint16_t index) { return index == 0x6041 || index == 0x603F; }

}  // namespace

void PdoEngine::Start(Time now) {
  running_ = true;
  now_ = now;
  received_ = {};
  for (Transmit& transmit : transmit_) Restart(transmit);
}

void PdoEngine::Step(Time now) {
  now_ = now;
  if (!running_) return;
  for (std::size_t number = 0; number < kCount; ++number) {
    const std::uint16_t communication = Nth(kTransmitCommunication, number);
    if (now < transmit_[number].inhibited_until || !Valid(communication)) continue;
    const std::uint32_t type = dictionary_.Get(communication, kTransmissionType);
    if (type <= kLastSynchronous) continue;
    const bool timer_expired = now >= EventTime(number);
    const bool looks_up = type == kProfileEvent || now % traits_.change_detection == Time(0);
    if (!timer_expired && !looks_up) continue;
    const Payload payload = Collect(Nth(kTransmitMapping, number));
    if (timer_expired || Eventful(number, payload)) {
      Send(number, payload);
    } else if (type == kProfileEvent && transmit_[number].last.length != payload.length) {
      transmit_[number].last = payload;  // what later changes are compared with
    }
  }
}

void PdoEngine::Sync() {
  if (!running_) return;
  for (std::size_t number = 0; number < kCount; ++number) {
    if (std::exchange(received_[number].pending, false)) {
      Apply(Nth(kReceiveMapping, number), received_[number].frame);
    }
  }
  for (std::size_t number = 0; number < kCount; ++number) {
    const std::uint16_t communication = Nth(kTransmitCommunication, number);
    const std::uint32_t type = dictionary_.Get(communication, kTransmissionType);
    if (!Valid(communication) || type > kLastSynchronous) continue;
    const Payload payload = Collect(Nth(kTransmitMapping, number));
    Transmit& transmit = transmit_[number];
    ++transmit.syncs;
    const bool due = type == 0 ? !(payload == transmit.last) : transmit.syncs >= type;
    if (due) Send(number, payload);
  }
}

PdoEngine::Receipt PdoEngine::Receive(const Frame& frame) {
  if (!running_) return Receipt::kNotMine;
  for (std::size_t number = 0; number < kCount; ++number) {
    const std::uint16_t communication = Nth(kReceiveCommunication, number);
    if (!Valid(communication) ||
        (dictionary_.Get(communication, kCobId) & kIdentifier) != frame.id) {
      continue;
    }
    if (frame.length < MappedLength(Nth(kReceiveMapping, number))) return Receipt::kTooShort;
    if (dictionary_.Get(communication, kTransmissionType) <= kLastSynchronous) {
      received_[number] = {true, frame};
    } else {
      Apply(Nth(kReceiveMapping, number), frame);
    }
    return Receipt::kTaken;
  }
  return Receipt::kNotMine;
}

std::vector<std::uint32_t> PdoEngine::ReceivedIds() const {
  std::vector<std::uint32_t> ids;
  for (std::size_t number = 0; number < kCount; ++number) {
    const std::uint16_t communication = Nth(kReceiveCommunication, number);
    if (Valid(communication)) {
      ids.push_back(dictionary_.Get(communication, kCobId) & kIdentifier);
    }
  }
  return ids;
}

Time PdoEngine::NextEvent(bool settled) const {
  Time next = Time::max();
  if (!running_) return next;
  for (std::size_t number = 0; number < kCount; ++number) {
    const std::uint16_t communication = Nth(kTransmitCommunication, number);
    if (!Valid(communication)) continue;
    const std::uint32_t type = dictionary_.Get(communication, kTransmissionType);
    if (type <= kLastSynchronous) continue;
    Time wanted = EventTime(number);
    if (type == kManufacturerEvent) {
      const Time look_up = (now_ / traits_.change_detection + 1) * traits_.change_detection;
      wanted = std::min(wanted, look_up);
    } else if (HasProfileEvent(number) &&
               (!settled || Eventful(number, Collect(Nth(kTransmitMapping, number))))) {
      wanted = std::min(wanted, now_ + kStep);
    }
    next = std::min(next, std::max(wanted, transmit_[number].inhibited_until));
  }
  return next;
}

bool PdoEngine::Valid(std::uint16_t communication) const {
  return (dictionary_.Get(communication, kCobId) & kInvalid) == 0;
}

bool PdoEngine::Locked(std::uint16_t communication) const {
  return Valid(communication) && !traits_.configurable_while_valid;
}

unsigned PdoEngine::MappedLength(std::uint16_t mapping) const {
  unsigned bits = 0;
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  for (std::uint8_t sub = 1; sub <= count; ++sub) bits += MappedBits(dictionary_.Get(mapping, sub));
  return bits / 8;
}

void PdoEngine::Apply(std::uint16_t mapping, const Frame& frame) {
  const auto* byte = frame.data.data();
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  for (std::uint8_t sub = 1; sub <= count; ++sub) {
    const std::uint32_t entry = dictionary_.Get(mapping, sub);
    const unsigned size = MappedBits(entry) / 8;
    // A refused value changes nothing: there is nobody to answer.
    dictionary_.Set(MappedIndex(entry), MappedSub(entry), GetLittleEndian(byte, size));
    byte += size;
  }
}

PdoEngine::Payload PdoEngine::Collect(std::uint16_t mapping) const {
  Payload payload;
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  for (std::uint8_t sub = 1; sub <= count; ++sub) {
    const std::uint32_t entry = dictionary_.Get(mapping, sub);
    const unsigned size = MappedBits(entry) / 8;
    PutLittleEndian(payload.data.begin() + payload.length, size,
                    dictionary_.Get(MappedIndex(entry), MappedSub(entry)));
    payload.length = static_cast<std::uint8_t>(payload.length + size);
  }
  return payload;
}

bool PdoEngine::HasProfileEvent(std::size_t number) const {
  const std::uint16_t mapping = Nth(kTransmitMapping, number);
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  for (std::uint8_t sub = 1; sub <= count; ++sub) {
    if (IsProfileEvent(MappedIndex(dictionary_.Get(mapping, sub)))) return true;
  }
  return false;
}

bool PdoEngine::Eventful(std::size_t number, const Payload& now) const {
  const std::uint16_t mapping = Nth(kTransmitMapping, number);
  const Payload& before = transmit_[number].last;
  const bool by_profile =
      dictionary_.Get(Nth(kTransmitCommunication, number), kTransmissionType) == kProfileEvent;
  if (before.length != now.length) return !by_profile;
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  std::size_t first = 0;
  for (std::uint8_t sub = 1; sub <= count; ++sub) {
    const std::uint32_t entry = dictionary_.Get(mapping, sub);
    const std::size_t last = first + MappedBits(entry) / 8;
    const bool same =
        std::equal(now.data.data() + first, now.data.data() + last, before.data.data() + first);
    const std::uint16_t index = MappedIndex(entry);
    const bool is_event =
        by_profile ? IsProfileEvent(index) : !dictionary_.At(index, MappedSub(entry)).continuous();
    if (!same && is_event) return true;
    first = last;
  }
  return false;
}

void PdoEngine::Send(std::size_t number, const Payload& payload) {
  const std::uint16_t communication = Nth(kTransmitCommunication, number);
  Transmit& transmit = transmit_[number];
  transmit.timer_start = now_;
  transmit.inhibited_until =
      now_ + dictionary_.Get(communication, kInhibitTime) * traits_.inhibit_unit;
  transmit.last = payload;
  transmit.syncs = 0;
  // Without a mapped object there is nothing to send.
  if (payload.length == 0) return;
  send_({dictionary_.Get(communication, kCobId) & kIdentifier, payload.length, payload.data});
}

void PdoEngine::Restart(Transmit& transmit) {
  transmit = Transmit{};
  transmit.timer_start = now_;
}

Time PdoEngine::EventTime(std::size_t number) const {
  const std::uint16_t communication = Nth(kTransmitCommunication, number);
  Time period = dictionary_.Get(communication, kEventTimer) * traits_.event_timer_unit;
  if (period == Time(0) && traits_.inhibit_time_is_period) {
    period = dictionary_.Get(communication, kInhibitTime) * traits_.inhibit_unit;
  }
  return period == Time(0) ? Time::max() : transmit_[number].timer_start + period;
}

}  // namespace sim
