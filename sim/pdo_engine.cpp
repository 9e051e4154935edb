#include "sim/pdo_engine.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

constexpr std::uint16_t kReceiveCommunication = 0x1400;
constexpr std::uint16_t kReceiveMapping = 0x1600;
constexpr std::uint16_t kTransmitCommunication = 0x1800;
constexpr std::uint16_t kTransmitMapping = 0x1A00;

constexpr std::uint8_t kCobId = 1;
constexpr std::uint8_t kTransmissionType = 2;
constexpr std::uint8_t kInhibitTime = 3;
constexpr std::uint8_t kEventTimer = 5;

constexpr std::uint32_t kInvalid = 0x80000000;
constexpr std::uint32_t kExtendedFrame = 0x20000000;
constexpr std::uint32_t kIdentifier = 0x7FF;

constexpr std::uint32_t kLastSynchronous = 0xF0;
constexpr std::uint32_t kManufacturerEvent = 0xFE;
constexpr std::uint32_t kProfileEvent = 0xFF;

constexpr unsigned kMaxMapped = 8;

std::uint16_t Nth(std::uint16_t first, std::size_t number) {
  return static_cast<std::uint16_t>(first + number);
}

// Identifiers that CiA 301 keeps for NMT, SDO and error control.
bool Restricted(std::uint32_t id) {
  return id <= 0x07F || (id >= 0x101 && id <= 0x180) || (id >= 0x581 && id <= 0x5FF) ||
         (id >= 0x601 && id <= 0x67F) || id >= 0x6E0;
}

AbortCode CheckTransmissionType(std::uint32_t type) {
  // 0xF1 to 0xFB are reserved, 0xFC and 0xFD wait for remote frames, which these drives do not
  // know.
  return type <= kLastSynchronous || type >= kManufacturerEvent ? AbortCode::kNone
                                                                : AbortCode::kInvalidValue;
}

// A mapping entry: index, sub-index and length in bits.
std::uint16_t MappedIndex(std::uint32_t entry) { return static_cast<std::uint16_t>(entry >> 16); }
std::uint8_t MappedSub(std::uint32_t entry) { return static_cast<std::uint8_t>(entry >> 8); }
unsigned MappedBits(std::uint32_t entry) { return entry & 0xFFU; }

}  // namespace

PdoEngine::PdoEngine(ObjectDictionary& dictionary, std::uint8_t node_id, const PdoTraits& traits,
                     FrameSink send)
    : dictionary_(dictionary), traits_(traits), send_(std::move(send)) {
  for (std::size_t number = 0; number < kCount; ++number) {
    const auto function = static_cast<std::uint32_t>(0x100 * number);
    AddReceivePdo(number, 0x200 + function + node_id);
    AddTransmitPdo(number, 0x180 + function + node_id);
  }
}

void PdoEngine::AddReceivePdo(std::size_t number, std::uint32_t cob_id) {
  const Direction pdo{Nth(kReceiveCommunication, number), Nth(kReceiveMapping, number), false};
  dictionary_.Add(pdo.communication, 0, 1, Access::kConst, kTransmissionType);
  dictionary_.Add(pdo.communication, kCobId, 4, Access::kReadWrite, cob_id)
      .OnWrite([this, pdo](std::uint32_t value) { return CheckCobId(pdo.communication, value); });
  dictionary_.Add(pdo.communication, kTransmissionType, 1, Access::kReadWrite, kProfileEvent)
      .OnWrite(CheckTransmissionType);
  AddMapping(pdo);
}

void PdoEngine::AddTransmitPdo(std::size_t number, std::uint32_t cob_id) {
  const Direction pdo{Nth(kTransmitCommunication, number), Nth(kTransmitMapping, number), true};
  dictionary_.Add(pdo.communication, 0, 1, Access::kConst, kEventTimer);
  dictionary_.Add(pdo.communication, kCobId, 4, Access::kReadWrite, cob_id)
      .OnWrite([this, pdo, number](std::uint32_t value) {
        const AbortCode error = CheckCobId(pdo.communication, value);
        if (error == AbortCode::kNone && !Valid(pdo.communication)) Restart(transmit_[number]);
        return error;
      });
  dictionary_.Add(pdo.communication, kTransmissionType, 1, Access::kReadWrite, kProfileEvent)
      .OnWrite(CheckTransmissionType);
  Object& inhibit_time = dictionary_.Add(pdo.communication, kInhibitTime, 2, Access::kReadWrite);
  inhibit_time.OnWrite([this, pdo, number](std::uint32_t) {
    if (Locked(pdo.communication)) return AbortCode::kDeviceState;
    if (traits_.inhibit_time_is_period) transmit_[number].timer_start = now_;
    return AbortCode::kNone;
  });
  Object& event_timer = dictionary_.Add(pdo.communication, kEventTimer, 2, Access::kReadWrite);
  event_timer.OnWrite([this, number](std::uint32_t) {
    transmit_[number].timer_start = now_;
    return AbortCode::kNone;
  });
  if (traits_.accepts_short_times) {
    inhibit_time.AcceptShort();
    event_timer.AcceptShort();
  }
  AddMapping(pdo);
}

void PdoEngine::AddMapping(const Direction& pdo) {
  dictionary_.Add(pdo.mapping, 0, 1, Access::kReadWrite).OnWrite([this, pdo](std::uint32_t count) {
    return CheckMappedCount(pdo, count);
  });
  for (std::uint8_t sub = 1; sub <= kMaxMapped; ++sub) {
    dictionary_.Add(pdo.mapping, sub, 4, Access::kReadWrite)
        .OnWrite([this, pdo](std::uint32_t entry) {
          if (Locked(pdo.communication) || dictionary_.Get(pdo.mapping, 0) != 0) {
            return AbortCode::kDeviceState;
          }
          return CheckMappedObject(pdo.transmit, entry);
        });
  }
}

AbortCode PdoEngine::CheckCobId(std::uint16_t communication, std::uint32_t value) const {
  if ((value & kExtendedFrame) != 0 || Restricted(value & kIdentifier)) {
    return AbortCode::kInvalidValue;
  }
  const std::uint32_t current = dictionary_.Get(communication, kCobId);
  const bool stays_valid = ((value | current) & kInvalid) == 0;
  if (stays_valid && ((value ^ current) & kIdentifier) != 0) return AbortCode::kDeviceState;
  return AbortCode::kNone;
}

AbortCode PdoEngine::CheckMappedObject(bool transmit, std::uint32_t mapping) {
  if (mapping == 0) return AbortCode::kNone;
  const auto [error, object] = dictionary_.Find(MappedIndex(mapping), MappedSub(mapping));
  if (object == nullptr) return error;
  const bool accessible = transmit ? object->readable() : object->writable();
  if (!object->mappable() || !accessible || MappedBits(mapping) != 8 * object->size()) {
    return AbortCode::kCannotBeMapped;
  }
  return AbortCode::kNone;
}

AbortCode PdoEngine::CheckMappedCount(const Direction& pdo, std::uint32_t count) const {
  if (Locked(pdo.communication)) return AbortCode::kDeviceState;
  if (count > kMaxMapped) return AbortCode::kPdoLengthExceeded;
  unsigned bits = 0;
  for (unsigned sub = 1; sub <= count; ++sub) {
    const std::uint32_t entry = dictionary_.Get(pdo.mapping, static_cast<std::uint8_t>(sub));
    if (entry == 0) return AbortCode::kCannotBeMapped;
    bits += MappedBits(entry);
  }
  return bits > 64 ? AbortCode::kPdoLengthExceeded : AbortCode::kNone;
}

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
    const bool looks_up = type == kManufacturerEvent && now % traits_.change_detection == Time(0);
    if (!timer_expired && !looks_up) continue;
    const std::uint16_t mapping = Nth(kTransmitMapping, number);
    const Payload payload = Collect(mapping);
    if (timer_expired || Eventful(mapping, transmit_[number].last, payload)) Send(number, payload);
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

Time PdoEngine::NextEvent() const {
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

bool PdoEngine::Eventful(std::uint16_t mapping, const Payload& before, const Payload& now) const {
  if (before.length != now.length) return true;
  const std::uint32_t count = dictionary_.Get(mapping, 0);
  std::size_t first = 0;
  for (std::uint8_t sub = 1; sub <= count; ++sub) {
    const std::uint32_t entry = dictionary_.Get(mapping, sub);
    const std::size_t last = first + MappedBits(entry) / 8;
    const bool same =
        std::equal(now.data.data() + first, now.data.data() + last, before.data.data() + first);
    if (!same && !dictionary_.At(MappedIndex(entry), MappedSub(entry)).continuous()) return true;
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
