#include "sim/node.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace sim {
namespace {

constexpr std::uint32_t kNmtId = 0x000;
constexpr std::uint32_t kSyncId = 0x080;
constexpr std::uint32_t kEmergencyBase = 0x080;
constexpr std::uint32_t kSdoReplyBase = 0x580;
constexpr std::uint32_t kSdoRequestBase = 0x600;
constexpr std::uint32_t kHeartbeatBase = 0x700;

// A drive takes its time to wake up; hosts discard what comes right after the activation frame.
constexpr Time kActivationTime = std::chrono::milliseconds(200);
constexpr std::uint8_t kActivation = 0x10;  // twice

constexpr std::uint32_t kServoDrive = 0x00020192;  // CiA 402, servo
constexpr std::uint32_t kVendorId = 0x00FFFF01;    // of no real vendor
constexpr std::uint32_t kRevision = 0x00010000;

constexpr std::uint16_t kPdoLengthError = 0x8210;  // emergency: PDO not processed, too short

const Node::Options& Checked(const Make& make, const Node::Options& options) {
  if (options.node_id < 1 || options.node_id > 127) {
    throw std::invalid_argument("the node must be 1 to 127");
  }
  if (options.counts_per_revolution < 0 ||
      options.counts_per_revolution > Node::kMaxCountsPerRevolution) {
    throw std::invalid_argument("the counts per revolution must be 1 to " +
                                std::to_string(Node::kMaxCountsPerRevolution));
  }
  if (options.tpdo1_id > 0x7FF) throw std::invalid_argument("an identifier has 11 bits");
  if (options.inactive && !make.has_activation) {
    throw std::invalid_argument("a drive of make '" + std::string(make.name) +
                                "' is always active");
  }
  return options;
}

std::vector<Axis> MakeAxes(const Make& make, const Node::Options& options) {
  AxisTraits traits = make.axis;
  if (options.counts_per_revolution != 0) {
    traits.counts_per_revolution = options.counts_per_revolution;
  }
  std::vector<Axis> axes;
  for (std::size_t i = 0; i < make.axis_count; ++i) {
    axes.emplace_back(traits, options.start_positions.at(i));
  }
  return axes;
}

}  // namespace

Node::Node(const Make& make, const Options& options, FrameSink send)
    : make_(make),
      options_(Checked(make, options)),
      send_(std::move(send)),
      axes_(MakeAxes(make, options)),
      pdos_(dictionary_, options.node_id, make.pdo,
            [this](const Frame& frame) { SendPdo(frame); }) {
  AddCommonObjects(make);
  make.add_objects(dictionary_, axes_);
  if (options.tpdo1_id != 0) dictionary_.SetPowerOnValue(0x1800, 1, options.tpdo1_id);
}

void Node::SendPdo(const Frame& frame) {
  const std::uint32_t reports_id = dictionary_.Get(0x1800, 1) & 0x7FF;
  if (!reports_lost_ || frame.id != reports_id) send_(frame);
}

void Node::AddCommonObjects(const Make& make) {
  dictionary_.Add(0x1000, 0, 4, Access::kConst, kServoDrive);
  dictionary_.Add(0x1001, 0, 1, Access::kReadOnly).Mappable().OnRead([this] {
    return InFault() ? 1U : 0U;
  });
  dictionary_.Add(0x1005, 0, 4, Access::kConst, kSyncId);
  dictionary_.Add(0x1014, 0, 4, Access::kConst, kEmergencyBase + options_.node_id);
  dictionary_.Add(0x1017, 0, 2, Access::kReadWrite, options_.heartbeat_ms)
      .OnWrite([this](std::uint32_t period_ms) {
        heartbeat_.SetPeriod(now_, static_cast<std::uint16_t>(period_ms));
        return AbortCode::kNone;
      });
  dictionary_.Add(0x1018, 0, 1, Access::kConst, 4);
  dictionary_.Add(0x1018, 1, 4, Access::kConst, kVendorId);
  dictionary_.Add(0x1018, 2, 4, Access::kConst, make.product_code);
  dictionary_.Add(0x1018, 3, 4, Access::kConst, kRevision);
  dictionary_.Add(0x1018, 4, 4, Access::kConst, options_.node_id);
}

void Node::PowerOn() {
  if (nmt_state_ != NmtState::kPowerOff) return;
  if (options_.inactive) {
    awaits_activation_ = !boots_at_;
  } else {
    BootUp();
  }
}

void Node::BootUp() {
  ResetApplication();
  ResetCommunication();
}

void Node::PowerCut() {
  nmt_state_ = NmtState::kPowerOff;
  awaits_activation_ = false;
  boots_at_.reset();
  pdos_.Stop();
  late_replies_.clear();
  for (Axis& axis : axes_) axis.Reset();
}

void Node::ResetApplication() {
  for (Axis& axis : axes_) axis.Reset();
  fault_reported_ = false;
  dictionary_.Reset(0x2000, 0xFFFF);
}

void Node::ResetCommunication() {
  pdos_.Stop();
  late_replies_.clear();
  dictionary_.Reset(0x1000, 0x1FFF);
  heartbeat_.SetPeriod(now_, options_.heartbeat_ms);
  nmt_state_ = NmtState::kInitialising;
  send_({kHeartbeatBase + options_.node_id, 1, {static_cast<std::uint8_t>(nmt_state_)}});
  nmt_state_ = NmtState::kPreOperational;
}

void Node::Receive(const Frame& frame) {
  if (nmt_state_ == NmtState::kPowerOff) {
    ReceiveActivation(frame);
    return;
  }
  if (frame.id == kNmtId) {
    ReceiveNmt(frame);
  } else if (frame.id == kSyncId) {
    ++received_.sync;
    pdos_.Sync();
  } else if (frame.id == kSdoRequestBase + options_.node_id) {
    ++received_.sdo;
    ReceiveSdo(frame, kSdoReplyBase + options_.node_id, 0);
  } else if (frame.id == kSdoRequestBase && make_.has_parameter_channel) {
    ReceiveParameterChannel(frame);
  } else {
    const PdoEngine::Receipt receipt = pdos_.Receive(frame);
    if (receipt != PdoEngine::Receipt::kNotMine) ++received_.pdo;
    if (receipt == PdoEngine::Receipt::kTooShort) SendEmergency(kPdoLengthError);
  }
  ReportFaultChange();
}

void Node::ReceiveNmt(const Frame& frame) {
  const bool mine = frame.data[1] == 0 || frame.data[1] == options_.node_id;
  if (frame.length != 2 || !mine) return;
  ++received_.nmt;
  const auto command = static_cast<NmtCommand>(frame.data[0]);
  const NmtState next = NextNmtState(nmt_state_, command);
  if (next == NmtState::kInitialising) {
    if (command == NmtCommand::kResetNode) ResetApplication();
    ResetCommunication();
    return;
  }
  const bool starts = next == NmtState::kOperational && nmt_state_ != next;
  nmt_state_ = next;
  if (starts) pdos_.Start(now_);
  if (next != NmtState::kOperational) pdos_.Stop();
}

void Node::ReceiveActivation(const Frame& frame) {
  const bool is_activation = frame.id == options_.node_id && frame.length == 2 &&
                             frame.data[0] == kActivation && frame.data[1] == kActivation;
  if (!awaits_activation_ || !is_activation) return;
  awaits_activation_ = false;
  boots_at_ = now_ + kActivationTime;
}

void Node::ReceiveParameterChannel(const Frame& frame) {
  const auto offset = static_cast<std::uint16_t>(options_.node_id << 12);
  const std::uint16_t index = DecodeSdoRequest(frame.data).index;
  // Every other index is the business of another axis on the bus.
  if (((index - offset) & 0xF000) != 0x2000) return;
  ++received_.sdo;
  ReceiveSdo(frame, kSdoReplyBase, offset);
}

void Node::ReceiveSdo(const Frame& frame, std::uint32_t reply_id, std::uint16_t index_offset) {
  // CiA 301: SDO frames have eight bytes, and there is no SDO in the state stopped.
  if (nmt_state_ == NmtState::kStopped || frame.length != 8) return;
  const SdoRequest request = DecodeSdoRequest(frame.data);
  const SdoFaults::Verdict verdict = sdo_faults_.Judge(request);
  switch (verdict.action) {
    case SdoFaults::Verdict::Action::kIgnore:
      return;
    case SdoFaults::Verdict::Action::kAbort:
      SendSdoReply(reply_id, SdoAbort(request.index, request.sub, verdict.code));
      return;
    case SdoFaults::Verdict::Action::kServe:
      break;
  }
  SdoRequest own = request;
  own.index = static_cast<std::uint16_t>(request.index - index_offset);
  auto reply = ServeSdo(dictionary_, own);
  if (!reply) return;
  PutLittleEndian(reply->begin() + 1, 2, request.index);
  SendSdoReply(reply_id, *reply);
}

void Node::SendSdoReply(std::uint32_t id, const SdoBytes& bytes) {
  const SdoFaults::Reply& fault = sdo_faults_.reply();
  Frame frame{id, fault.length, bytes};
  if (fault.wrong_index) {
    PutLittleEndian(frame.data.begin() + 1, 2, GetLittleEndian(frame.data.begin() + 1, 2) + 1);
  }
  for (int copy = 0; copy < (fault.twice ? 2 : 1); ++copy) {
    if (fault.delay == Time::zero()) {
      send_(frame);
    } else {
      late_replies_.push_back({now_ + fault.delay, frame});
    }
  }
}

void Node::Step() {
  now_ += kStep;
  // Faults that are due; power-on and power-cut among them work on a node that is off or on.
  for (std::size_t i = 0; i < timed_faults_.size();) {
    if (now_ < timed_faults_[i].at) {
      ++i;
      continue;
    }
    const Fault fault = timed_faults_[i].fault;
    timed_faults_.erase(timed_faults_.begin() + static_cast<std::ptrdiff_t>(i));
    Strike(fault);
  }
  if (boots_at_ && now_ >= *boots_at_) {
    boots_at_.reset();
    BootUp();
    SendEmergency(0);
  }
  if (nmt_state_ == NmtState::kPowerOff) return;

  for (Axis& axis : axes_) axis.Step();
  while (!late_replies_.empty() && now_ >= late_replies_.front().at) {
    send_(late_replies_.front().frame);
    late_replies_.pop_front();
  }
  if (heartbeat_.Due(now_) && !heartbeat_lost_) {
    send_({kHeartbeatBase + options_.node_id, 1, {static_cast<std::uint8_t>(nmt_state_)}});
  }
  pdos_.Step(now_);
}

Time Node::NextEvent() const {
  Time next = Time::max();
  for (const TimedFault& timed : timed_faults_) next = std::min(next, timed.at);
  if (boots_at_) next = std::min(next, *boots_at_);
  if (nmt_state_ == NmtState::kPowerOff) return next;
  if (!late_replies_.empty()) next = std::min(next, late_replies_.front().at);
  return std::min({next, heartbeat_.NextEvent(), pdos_.NextEvent()});
}

void Node::Inject(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kPowerCutAfter:
    case Fault::Kind::kPowerOnAfter:
    case Fault::Kind::kErrorAfter:
    case Fault::Kind::kNoHeartbeatAfter:
    case Fault::Kind::kNoReportsAfter:
    case Fault::Kind::kBlockMotorAfter:
    case Fault::Kind::kEmergencyStopAfter:
    case Fault::Kind::kEmergencyReleaseAfter:
      if (fault.number == 0) {
        Strike(fault);
      } else {
        timed_faults_.push_back({now_ + std::chrono::milliseconds(fault.number), fault});
      }
      break;
    default:
      sdo_faults_.Inject(fault);
      break;
  }
}

void Node::Strike(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kPowerCutAfter:
      PowerCut();
      break;
    case Fault::Kind::kPowerOnAfter:
      PowerOn();
      break;
    case Fault::Kind::kErrorAfter:
      LatchError(fault.error_code);
      break;
    case Fault::Kind::kNoHeartbeatAfter:
      heartbeat_lost_ = true;
      break;
    case Fault::Kind::kNoReportsAfter:
      reports_lost_ = true;
      break;
    case Fault::Kind::kBlockMotorAfter:
      for (Axis& axis : axes_) axis.Block(true);
      break;
    case Fault::Kind::kEmergencyStopAfter:
      PressEmergencyStop();
      break;
    case Fault::Kind::kEmergencyReleaseAfter:
      ReleaseEmergencyStop();
      break;
    default:
      break;
  }
}

void Node::ClearFaults() {
  sdo_faults_.Clear();
  timed_faults_.clear();
  heartbeat_lost_ = false;
  reports_lost_ = false;
  for (Axis& axis : axes_) axis.Block(false);
}

void Node::LatchError(std::uint16_t error_code, std::size_t axis) {
  if (nmt_state_ == NmtState::kPowerOff) return;
  axes_.at(axis - 1).Trip(error_code);
  for (Axis& other : axes_) other.Trip(0);
  ReportFaultChange();
}

void Node::PressEmergencyStop() {
  for (Axis& axis : axes_) axis.PressEmergencyStop();
}

void Node::ReleaseEmergencyStop() {
  for (Axis& axis : axes_) axis.ReleaseEmergencyStop();
}

bool Node::InFault() const {
  return std::any_of(axes_.begin(), axes_.end(), [](const Axis& axis) { return axis.InFault(); });
}

std::uint16_t Node::ErrorCode() const {
  for (const Axis& axis : axes_) {
    if (axis.error_code() != 0) return axis.error_code();
  }
  return 0;
}

void Node::ReportFaultChange() {
  if (InFault() == fault_reported_) return;
  fault_reported_ = InFault();
  SendEmergency(ErrorCode());  // 0 says "no error" after a fault reset
}

void Node::SendEmergency(std::uint16_t error_code) {
  if (nmt_state_ == NmtState::kStopped || nmt_state_ == NmtState::kPowerOff) return;
  Frame frame{kEmergencyBase + options_.node_id, 8, {}};
  PutLittleEndian(frame.data.begin(), 2, error_code);
  frame.data[2] = InFault() ? 1 : 0;
  send_(frame);
}

}  // namespace sim
