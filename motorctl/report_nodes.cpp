// What nodes tell of themselves, and what they are told.
#include <algorithm>

#include "pdo_fields.h"
#include "report_watch.h"

namespace motorctl {
namespace {

constexpr std::uint8_t kStart = 0x01;
constexpr std::uint8_t kResetNode = 0x81;
constexpr std::uint8_t kResetCommunication = 0x82;
constexpr std::uint8_t kOperational = 0x05;
constexpr std::uint16_t kHeartbeatTime = 0x1017;
constexpr std::uint16_t kFirstOfPdos = 0x1400;
constexpr std::uint16_t kLastOfPdos = 0x1BFF;
constexpr std::uint16_t kErrorCode = 0x603F;
constexpr std::uint16_t kControlword = 0x6040;
constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint16_t kOperationEnabled = 0x27;

// A state that changes so long after nobody said anything has changed by itself.
constexpr std::int64_t kTold = 2'000'000'000;

bool Shows(const std::vector<StateChange>& changes, std::uint16_t value) {
  return !changes.empty() && changes.back().value == value;
}

// As it was when it was heard last.
bool WasOperational(const std::vector<StateChange>& changes) {
  const auto heard = std::find_if(changes.rbegin(), changes.rend(), [](const StateChange& change) {
    return change.value != kNoHeartbeat;
  });
  return heard != changes.rend() && heard->value == kOperational;
}

}  // namespace

bool NodeWatch::WasTold(const Node& node, const KeptFrame& frame) const {
  return node.told && frame.nanoseconds - *node.told <= kTold;
}

void NodeWatch::HearNmt(const KeptFrame& frame) {
  if (frame.length != 2) return;
  const std::uint8_t command = frame.data[0];
  const int addressed = frame.data[1];
  Finding& finding = findings_.Add(
      FindingOf(frame, "nmt_command", false, addressed, DecodeFrame(Logged(frame), make_).text));
  if (finding.count == 1) finding.fields.Add("command", NmtCommandText(command));
  if (command != kStart) streams_.ForgetNode(addressed);
  for (auto& [id, node] : nodes_) {
    if (addressed != 0 && addressed != id) continue;
    node.told = frame.nanoseconds;
    node.reset = node.reset || command == kResetNode || command == kResetCommunication;
  }
}

void NodeWatch::HearHeartbeat(int id, const KeptFrame& frame) {
  if (frame.length != 1) return;
  Node& node = nodes_[id];
  NodeReport& report = report_.nodes[id];
  // The uppermost bit toggles in answers to node guarding.
  const auto state = static_cast<std::uint8_t>(frame.data[0] & 0x7F);
  const bool was_operational = WasOperational(report.nmt);
  if (frame.data[0] == 0) {
    ++report.boot_ups;
    const bool restarted = was_operational && !node.reset;
    findings_.Add(FindingOf(frame, "boot_up", restarted, id,
                            "boot-up of " + NodeText(static_cast<unsigned>(id)) +
                                (restarted ? ", which was operational: nobody had reset it" : "")));
    node.reset = false;
    streams_.ForgetNode(id);
  } else if (!Shows(report.nmt, state)) {
    const bool alone = was_operational && state != kOperational && !WasTold(node, frame);
    Finding finding = FindingOf(frame, "nmt_state", alone, id,
                                NodeText(static_cast<unsigned>(id)) + ": " + NmtStateText(state) +
                                    (alone ? ", was operational: nobody had told it to" : ""));
    finding.fields.Add("state", NmtStateText(state));
    findings_.Add(std::move(finding));
  }
  if (frame.data[0] != 0) streams_.Hear(frame.id, frame);
  if (!Shows(report.nmt, state)) report.nmt.push_back({frame.nanoseconds, state});
}

void NodeWatch::HearEmergency(int id, const KeptFrame& frame) {
  if (frame.length != 8) return;
  const auto code = static_cast<std::uint16_t>(LittleEndian(frame.data, 2));
  // Code 0: an error is over.
  if (code != 0) ++report_.nodes[id].emergencies;
  const Meaning meaning = DecodeFrame(Logged(frame), make_);
  Finding finding =
      FindingOf(frame, code == 0 ? "emergency_over" : "emergency", code != 0, id, meaning.text);
  finding.fields.Add("error_code", code).Add("error_text", ErrorCodeText(code));
  findings_.Add(std::move(finding));
}

void NodeWatch::HearPdo(int node, std::uint32_t base, const KeptFrame& frame) {
  if (make_ == nullptr || frame.direction == LoggedFrame::Direction::kSent) return;
  ForEachMotor(*make_, make_->inputs, base, frame.data, frame.length,
               [&](int, std::uint32_t value) { HearInputs(node, frame, value); });
  ForEachMotor(*make_, make_->error_code, base, frame.data, frame.length,
               [&](int motor, std::uint32_t value) {
                 HearErrorCode(node, motor, frame, static_cast<std::uint16_t>(value));
               });
  ForEachMotor(*make_, make_->statusword, base, frame.data, frame.length,
               [&](int motor, std::uint32_t value) {
                 HearStatusword(node, motor, frame, static_cast<std::uint16_t>(value));
               });
}

void NodeWatch::HearObject(int node, const KeptFrame& frame, std::uint16_t index,
                           std::uint32_t value, bool written) {
  if (written) {
    if (index == kHeartbeatTime) streams_.ForgetHeartbeat(node);
    if (index >= kFirstOfPdos && index <= kLastOfPdos) streams_.ForgetNode(node);
    if (index == kControlword) nodes_[node].told = frame.nanoseconds;
    return;
  }
  if (index != kErrorCode && index != kStatusword) return;
  const int motors = make_ == nullptr ? 1 : static_cast<int>(make_->motors);
  for (int motor = 0; motor < motors; ++motor) {
    const auto half = static_cast<std::uint16_t>(motor == 0 ? value : value >> 16U);
    if (index == kErrorCode) {
      HearErrorCode(node, motor, frame, half);
    } else {
      HearStatusword(node, motor, frame, half);
    }
  }
}

void NodeWatch::HearStatusword(int id, int motor, const KeptFrame& frame, std::uint16_t value) {
  std::vector<StateChange>& changes = report_.nodes[id].drive[motor];
  const char* const state = DriveStateText(value, make_);
  const char* const before =
      changes.empty() ? nullptr : DriveStateText(changes.back().value, make_);
  if (before == state) return;
  changes.push_back({frame.nanoseconds, value});
  const bool stopped = make_ != nullptr && make_->emergency_stop_mask != 0 &&
                       (value & make_->emergency_stop_mask) == make_->emergency_stop;
  Drive& drive = nodes_[id].drives[motor];
  drive.was_enabled = drive.was_enabled || state == FindState(kOperationEnabled);
  if (HearStop(id, motor, frame, stopped, state)) return;
  const std::uint16_t bits = value & 0x4F;
  const bool fault = bits == 0x08 || bits == 0x0F;
  const bool alone = before != nullptr && before == FindState(kOperationEnabled) && !fault &&
                     !WasTold(nodes_[id], frame);
  if (before == nullptr && !fault) return;  // as it was before the log began
  Finding finding =
      FindingOf(frame, "drive_state", fault || alone, id, MotorName(report_, id, motor + 1) + ": ");
  finding.motor = motor + 1;
  finding.text += before == nullptr ? state : std::string(before) + " -> " + state;
  if (alone) finding.text += ", nobody had told it to";
  finding.fields.Add("statusword", value).Add("state", state);
  findings_.Add(std::move(finding));
}

// Its phases: pressed, every input released (see HearInputs), over. A drive that was not enabled
// yet shows the same bits, and no stop.
bool NodeWatch::HearStop(int id, int motor, const KeptFrame& frame, bool stopped,
                         const char* state) {
  Node& node = nodes_[id];
  Drive& drive = node.drives[motor];
  std::optional<std::int64_t>& since = drive.stop_since;
  if (stopped == since.has_value()) return false;
  if (stopped && !drive.was_enabled && node.inputs.value_or(0) == 0) return false;
  Finding finding = FindingOf(frame, stopped ? "emergency_stop" : "emergency_stop_over", stopped,
                              id, MotorName(report_, id, motor + 1) + ": emergency stop");
  finding.motor = motor + 1;
  if (stopped) {
    since = frame.nanoseconds;
  } else {
    finding.duration = frame.nanoseconds - *since;
    finding.text += std::string(" is over: ") + state;
    finding.detail = ", after " + SecondsText(*finding.duration) + " s";
    since.reset();
  }
  findings_.Add(std::move(finding));
  return true;
}

void NodeWatch::HearErrorCode(int id, int motor, const KeptFrame& frame, std::uint16_t code) {
  std::optional<std::uint32_t>& before = nodes_[id].drives[motor].error;
  if (before.value_or(0) == code) return;
  before = code;
  const std::string name = MotorName(report_, id, motor + 1);
  Finding finding =
      FindingOf(frame, code == 0 ? "drive_error_over" : "drive_error", code != 0, id,
                name + (code == 0 ? ": no error code any more"
                                  : ": error code " + Hex(code, 4) + " " + ErrorCodeText(code)));
  finding.motor = motor + 1;
  finding.fields.Add("error_code", code).Add("error_text", ErrorCodeText(code));
  findings_.Add(std::move(finding));
}

void NodeWatch::HearInputs(int id, const KeptFrame& frame, std::uint32_t value) {
  Node& node = nodes_[id];
  if (node.inputs.value_or(0) == value) {
    node.inputs = value;
    return;
  }
  node.inputs = value;
  Finding finding =
      FindingOf(frame, "digital_inputs", false, id,
                NodeText(static_cast<unsigned>(id)) + ": digital inputs " + Hex(value, 4));
  if (node.drives[0].stop_since) {
    finding.text += value == 0 ? ", all released while the drive shows the emergency stop" : "";
  }
  finding.fields.Add("inputs", value);
  findings_.Add(std::move(finding));
}

}  // namespace motorctl
