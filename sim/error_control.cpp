#include "sim/error_control.h"

#include <algorithm>
#include <utility>

#include "sim/identifiers.h"

namespace sim {
namespace {

constexpr std::uint32_t kHighestNodeId = 127;
constexpr std::size_t kHistorySize = 8;

// Bits of the error register.
constexpr unsigned kGeneric = 0x01;
constexpr unsigned kCurrent = 0x02;
constexpr unsigned kVoltage = 0x04;
constexpr unsigned kTemperature = 0x08;
constexpr unsigned kCommunication = 0x10;

// Values of 0x1029 sub-index 1; 1 stays where it is.
constexpr std::uint32_t kToPreOperational = 0;
constexpr std::uint32_t kToStopped = 2;

// By the class of the error code, its upper four bits; 0x8 is more than communication.
unsigned BitsOf(std::uint16_t error_code) {
  switch (error_code >> 12) {
    case 0x0:
      return 0;
    case 0x2:
      return kGeneric | kCurrent;
    case 0x3:
      return kGeneric | kVoltage;
    case 0x4:
      return kGeneric | kTemperature;
    default:
      break;
  }
  const bool communication = error_code >> 8 == 0x81 || error_code >> 8 == 0x82;
  return communication ? kGeneric | kCommunication : kGeneric;
}

}  // namespace

ErrorControl::ErrorControl(ObjectDictionary& dictionary, const std::vector<Axis>& axes,
                           const NmtState& nmt_state, const Options& options, FrameSink send)
    : dictionary_(dictionary),
      axes_(axes),
      nmt_state_(nmt_state),
      options_(options),
      send_(std::move(send)) {
  dictionary.Add(0x1001, 0, 1, Access::kReadOnly).Mappable().OnRead([this] { return Register(); });
  AddHistory();
  dictionary.Add(0x1014, 0, 4, Access::kConst, kEmergency + options.node_id);
  dictionary.Add(0x1016, 0, 1, Access::kConst, 1);
  dictionary.Add(0x1016, 1, 4, Access::kReadWrite).OnWrite([this](std::uint32_t value) {
    return SetConsumer(value);
  });
  dictionary.Add(0x1017, 0, 2, Access::kReadWrite, options.heartbeat_ms)
      .OnWrite([this](std::uint32_t period_ms) {
        producer_.SetPeriod(now_, static_cast<std::uint16_t>(period_ms));
        return AbortCode::kNone;
      });
  dictionary.Add(0x1029, 0, 1, Access::kConst, 1);
  dictionary.Add(0x1029, 1, 1, Access::kReadWrite, kToPreOperational).OnWrite([](std::uint32_t to) {
    return to <= kToStopped ? AbortCode::kNone : AbortCode::kInvalidValue;
  });
}

void ErrorControl::AddHistory() {
  dictionary_.Add(0x1003, 0, 1, Access::kReadWrite)
      .OnRead([this] { return static_cast<std::uint32_t>(history_.size()); })
      .OnWrite([this](std::uint32_t count) {
        if (count != 0) return AbortCode::kInvalidValue;
        history_.clear();
        return AbortCode::kNone;
      });
  for (std::size_t i = 0; i < kHistorySize; ++i) {
    dictionary_.Add(0x1003, static_cast<std::uint8_t>(i + 1), 4, Access::kReadOnly)
        .ReadableWhile([this, i] { return i < history_.size(); })
        .OnRead([this, i] { return i < history_.size() ? history_[i] : 0U; });
  }
}

AbortCode ErrorControl::SetConsumer(std::uint32_t value) {
  const std::uint32_t node_id = value >> 16;  // with the reserved bits above it, which must be 0
  if (node_id > kHighestNodeId) return AbortCode::kInvalidValue;
  // Node-ID 0 watches nobody, as a time of 0 does.
  consumer_.Watch(static_cast<std::uint8_t>(node_id), static_cast<std::uint16_t>(value));
  return AbortCode::kNone;
}

void ErrorControl::Reset(Time now) {
  now_ = now;
  producer_.SetPeriod(now, options_.heartbeat_ms);
  consumer_ = HeartbeatConsumer();
  history_.clear();
  reported_ = Register() != 0;
}

void ErrorControl::SendBootUp() {
  send_({kHeartbeat + options_.node_id, 1, {static_cast<std::uint8_t>(nmt_state_)}});
}

void ErrorControl::Receive(const Frame& frame) {
  if (WatchedId() != 0 && frame.id == WatchedId() && frame.length == 1) consumer_.Heard(now_);
}

bool ErrorControl::Step(Time now) {
  now_ = now;
  if (producer_.Due(now) && !heartbeats_lost_) {
    send_({kHeartbeat + options_.node_id, 1, {static_cast<std::uint8_t>(nmt_state_)}});
  }
  return consumer_.Failed(now);
}

Time ErrorControl::NextEvent() const {
  return std::min(producer_.NextEvent(), consumer_.NextEvent());
}

void ErrorControl::Report(std::uint16_t error_code) {
  history_.push_front(error_code);
  if (history_.size() > kHistorySize) history_.pop_back();
  reported_ = Register() != 0;
  SendEmergency(error_code);
}

void ErrorControl::ReportRecovery() {
  if (!reported_ || Register() != 0) return;
  reported_ = false;
  SendEmergency(0);
}

void ErrorControl::SendEmergency(std::uint16_t error_code) {
  // CiA 301: there are no emergency messages in the state stopped.
  if (nmt_state_ == NmtState::kStopped || nmt_state_ == NmtState::kPowerOff) return;
  Frame frame{kEmergency + options_.node_id, 8, {}};
  PutLittleEndian(frame.data.begin(), 2, error_code);
  frame.data[2] = Register();
  send_(frame);
}

std::uint32_t ErrorControl::WatchedId() const {
  return consumer_.node_id() == 0 ? 0 : kHeartbeat + consumer_.node_id();
}

NmtState ErrorControl::StateAfterError() const {
  switch (dictionary_.Get(0x1029, 1)) {
    case kToPreOperational:
      // Out of operational only.
      return nmt_state_ == NmtState::kOperational ? NmtState::kPreOperational : nmt_state_;
    case kToStopped:
      return NmtState::kStopped;
    default:
      return nmt_state_;
  }
}

std::uint8_t ErrorControl::Register() const {
  unsigned bits = 0;
  for (const Axis& axis : axes_) {
    bits |= BitsOf(axis.error_code()) | (axis.InFault() ? kGeneric : 0U);
  }
  return static_cast<std::uint8_t>(bits);
}

}  // namespace sim
