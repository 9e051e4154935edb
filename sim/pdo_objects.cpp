// The objects of PdoEngine and what may be written to them.
#include <utility>

#include "sim/pdo_engine.h"
#include "sim/pdo_layout.h"

namespace sim {

using namespace pdo;  // NOLINT(google-build-using-namespace): what this is about

namespace {

constexpr unsigned kMaxMapped = 8;

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

}  // namespace sim
