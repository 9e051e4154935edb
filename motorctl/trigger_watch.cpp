#include "trigger_watch.h"

#include <linux/can.h>

#include <utility>

#include "abort_codes.h"
#include "decode.h"
#include "identifiers.h"
#include "pdo_fields.h"
#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint8_t kOperational = 0x05;
constexpr std::uint8_t kResetNode = 0x81;
constexpr std::uint8_t kResetCommunication = 0x82;
// The upper three bits of the first byte of an SDO.
constexpr unsigned kInitiateWrite = 1;
constexpr unsigned kInitiateRead = 2;
constexpr unsigned kAbort = 4;
constexpr std::uint16_t kHeartbeatTime = 0x1017;

constexpr auto kSdoTimeout = std::chrono::milliseconds(500);
// One that comes later was not asked for.
constexpr auto kLongestBoot = std::chrono::seconds(10);

}  // namespace

TriggerWatch::TriggerWatch(const motor_driver::Make* make,
                           std::function<void(const BusEvent&)> tell)
    : make_(make), tell_(std::move(tell)) {}

void TriggerWatch::Tell(const char* kind, int node, const std::string& text, const BusFrame* frame,
                        bool triggers) {
  BusEvent event;
  event.nanoseconds = frame != nullptr ? frame->nanoseconds : WallClockNanoseconds();
  event.kind = kind;
  event.node = node;
  event.text = text;
  if (frame != nullptr) event.frame = FrameText(Logged(*frame));
  event.triggers = triggers;
  tell_(event);
}

void TriggerWatch::TellMeaning(const char* kind, int node, const BusFrame& frame, bool triggers) {
  Tell(kind, node, DecodeFrame(Logged(frame), make_).text, &frame, triggers);
}

void TriggerWatch::Hear(const BusFrame& frame, Clock::time_point now) {
  if ((frame.id & CAN_ERR_FLAG) != 0) {
    TellMeaning(TellsControllerState(frame.id) ? "controller_state" : "error_frame", 0, frame);
    return;
  }
  if ((frame.id & (CAN_EFF_FLAG | CAN_RTR_FLAG)) != 0) return;
  if (frame.id == kNmt) return HearNmt(frame, now);
  const int id = static_cast<int>(frame.id & kNodeMask);
  const std::uint32_t function = frame.id & kFunctionMask;
  if (id == 0) return;
  if (function == kSdoRequest || function == kSdoResponse) {
    HearSdo(nodes_[id], id, frame, now);
  } else if (function == kHeartbeat && !frame.sent && frame.length == 1) {
    HearHeartbeat(nodes_[id], id, frame, now);
  } else if (function == kEmergency && frame.length == 8) {
    nodes_[id].heard = true;
    // Code 0: an error is over.
    if (LittleEndian(frame.data, 2) != 0) TellMeaning("emergency", id, frame);
  } else if (make_ != nullptr && make_->error_code.bits != 0 &&
             function == make_->error_code.base_id && !frame.sent) {
    HearErrorCode(nodes_[id], id, frame);
  }
}

// What a host resets boots; what it had sent before, a heartbeat too, may still come.
void TriggerWatch::HearNmt(const BusFrame& frame, Clock::time_point now) {
  if (frame.length != 2) return;
  const int addressed = frame.data[1];
  if (addressed > 0 && addressed <= static_cast<int>(kNodeMask)) nodes_[addressed];
  for (auto& [id, node] : nodes_) {
    if (addressed != 0 && addressed != id) continue;
    if (frame.data[0] != kResetNode && frame.data[0] != kResetCommunication) continue;
    node = Node();
    node.reset = now;
  }
}

void TriggerWatch::HearHeartbeat(Node& node, int id, const BusFrame& frame, Clock::time_point now) {
  const bool was_operational = std::exchange(node.operational, frame.data[0] == kOperational);
  node.heard = true;
  if (frame.data[0] == 0) {
    const bool expected = node.reset && now - *node.reset <= kLongestBoot;
    node = Node();
    node.heard = true;
    if (was_operational && !expected) TellMeaning("boot_up", id, frame);
    return;
  }
  node.heartbeat.Hear(now.time_since_epoch());
}

void TriggerWatch::HearSdo(Node& node, int id, const BusFrame& frame, Clock::time_point now) {
  if (frame.length != 8) return;
  const bool request = (frame.id & kFunctionMask) == kSdoRequest;
  const unsigned specifier = frame.data[0] >> 5U;
  const std::uint32_t object = LittleEndian(frame.data + 1, 3);
  node.heard = node.heard || !request;
  if (specifier == kAbort) {
    // To ask a drive whether it has an object is how a host finds out what it can do.
    const auto asked = node.requests.find(object);
    const std::uint32_t code = LittleEndian(frame.data + 4, 4);
    const bool has_none =
        !request && asked != node.requests.end() && asked->second.reads && SaysAbsent(code);
    if (asked != node.requests.end()) node.requests.erase(asked);
    // A host gives up a node that was never heard: a scan asks all of them.
    TellMeaning("sdo_abort", id, frame, node.heard && !has_none);
  } else if (!request) {
    node.requests.erase(object);
  } else if (specifier == kInitiateWrite || specifier == kInitiateRead) {
    // One that is repeated has waited from the first on.
    node.requests.try_emplace(object, Request{now, specifier == kInitiateRead});
    // Another period may follow; it is learned again.
    if ((object & 0xFFFFU) == kHeartbeatTime && specifier == kInitiateWrite) {
      node.heartbeat.Forget();
    }
  }
}

// A node that was never heard may not be there.
void TriggerWatch::TellTimeouts(Node& node, int id, Clock::time_point now) {
  for (auto request = node.requests.begin(); request != node.requests.end();) {
    if (now - request->second.since <= kSdoTimeout) {
      ++request;
      continue;
    }
    const auto index = static_cast<std::uint16_t>(request->first);
    const auto sub = static_cast<std::uint8_t>(request->first >> 16U);
    request = node.requests.erase(request);
    if (!node.heard) continue;
    Tell("sdo_timeout", id,
         "SDO node " + std::to_string(id) + ": no answer about " + Hex(index, 4) + " sub " +
             std::to_string(sub) + " " + ObjectName(index, sub, make_),
         nullptr);
  }
}

void TriggerWatch::HearErrorCode(Node& node, int id, const BusFrame& frame) {
  node.heard = true;
  const std::uint32_t base = frame.id & kFunctionMask;
  const auto tell = [&](int motor, std::uint32_t code) {
    if (std::exchange(node.errors[motor], code) == code || code == 0) return;
    Tell("drive_error", id,
         "node " + std::to_string(id) +
             (make_->motors > 1 ? " motor " + std::to_string(motor + 1) : "") + ": error code " +
             Hex(code, 4) + " " + ErrorCodeText(static_cast<std::uint16_t>(code)),
         &frame);
  };
  ForEachMotor(*make_, make_->error_code, base, frame.data, frame.length, tell);
}

void TriggerWatch::Tick(Clock::time_point now) {
  for (auto& [id, node] : nodes_) {
    if (node.heartbeat.Overdue(now.time_since_epoch())) {
      const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(
          now.time_since_epoch() - *node.heartbeat.last());
      node.heartbeat.Forget();
      Tell("heartbeat_overdue", id,
           "node " + std::to_string(id) + ": no heartbeat for " + std::to_string(silent.count()) +
               " ms",
           nullptr);
    }
    TellTimeouts(node, id, now);
  }
}

}  // namespace motorctl
