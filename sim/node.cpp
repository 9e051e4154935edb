#include "sim/node.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "sim/identifiers.h"

namespace sim {
namespace {

// A drive takes its time to wake up; hosts discard what comes right after the activation frame.
constexpr Time kActivationTime = std::chrono::milliseconds(200);
constexpr std::uint8_t kActivation = 0x10;  // twice

constexpr std::uint32_t kServoDrive = 0x00020192;  // CiA 402, servo
constexpr std::uint32_t kVendorId = 0x00FFFF01;    // of no real vendor
constexpr std::uint32_t kRevision = 0x00010000;
constexpr std::size_t kLongestUserText = 64;

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
      pdos_(dictionary_, options.node_id, make.pdo, [this](const Frame& frame) { SendPdo(frame); }),
      errors_(dictionary_, axes_, nmt_state_, {options.node_id, options.heartbeat_ms},
              [this](const Frame& frame) { send_(frame); }),
      server_(dictionary_),
      parameter_server_(dictionary_, ParameterOffset(options)) {
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
  dictionary_.Add(0x1005, 0, 4, Access::kConst, kSync);
  const auto add_text = [this](std::uint16_t index, std::string_view text) {
    dictionary_.AddString(index, 0, Access::kConst, std::string(text), text.size());
  };
  add_text(0x1008, make.device_name);
  add_text(0x1009, make.hardware_version);
  add_text(0x100A, make.software_version);
  dictionary_.AddString(make.user_text, 0, Access::kReadWrite, "", kLongestUserText);
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
  CloseTransfers();
  for (Axis& axis : axes_) axis.Reset();
}

void Node::ResetApplication() {
  for (Axis& axis : axes_) axis.Reset();
  dictionary_.Reset(0x2000, 0xFFFF);
}

void Node::ResetCommunication() {
  pdos_.Stop();
  CloseTransfers();
  dictionary_.Reset(0x1000, 0x1FFF);
  errors_.Reset(now_);
  nmt_state_ = NmtState::kInitialising;
  errors_.SendBootUp();
  nmt_state_ = NmtState::kPreOperational;
}

void Node::Receive(const Frame& frame) {
  if (nmt_state_ == NmtState::kPowerOff) {
    ReceiveActivation(frame);
    return;
  }
  if (frame.id == kNmt) {
    ReceiveNmt(frame);
  } else if (frame.id == kSync) {
    ++received_.sync;
    pdos_.Sync();
  } else if (frame.id == kSdoRequest + options_.node_id) {
    ++received_.sdo;
    ReceiveSdo(frame, options_.node_id, server_);
  } else if (frame.id == kSdoRequest && make_.has_parameter_channel) {
    ReceiveParameterChannel(frame);
  } else {
    const PdoEngine::Receipt receipt = pdos_.Receive(frame);
    if (receipt != PdoEngine::Receipt::kNotMine) ++received_.pdo;
    if (receipt == PdoEngine::Receipt::kTooShort) errors_.Report(ErrorControl::kPdoLengthError);
  }
  errors_.Receive(frame);
  errors_.ReportRecovery();
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
  const bool stops = next == NmtState::kStopped && nmt_state_ != next;
  Enter(next);
  if (stops) AbortConnection(ErrorControl::kCommunicationError);
}

void Node::Enter(NmtState next) {
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
    errors_.SendEmergency(0);
  }
  if (nmt_state_ == NmtState::kPowerOff) return;

  for (Axis& axis : axes_) axis.Step();
  SendLateReplies();
  EndLateTransfers();
  if (errors_.Step(now_)) LoseWatchedNode();
  pdos_.Step(now_);
}

Time Node::NextEvent() const {
  Time next = Time::max();
  for (const TimedFault& timed : timed_faults_) next = std::min(next, timed.at);
  if (boots_at_) next = std::min(next, *boots_at_);
  if (nmt_state_ == NmtState::kPowerOff) return next;
  if (!late_replies_.empty()) next = std::min(next, late_replies_.front().at);
  next = std::min({next, server_.NextEvent(), parameter_server_.NextEvent()});
  const bool settled =
      std::all_of(axes_.begin(), axes_.end(), [](const Axis& axis) { return axis.Settled(); });
  return std::min({next, errors_.NextEvent(), pdos_.NextEvent(settled)});
}

std::vector<std::uint32_t> Node::ListensTo() const {
  std::vector<std::uint32_t> ids = pdos_.ReceivedIds();
  if (errors_.WatchedId() != 0) ids.push_back(errors_.WatchedId());
  return ids;
}

void Node::LatchError(std::uint16_t error_code, std::size_t axis) {
  if (nmt_state_ == NmtState::kPowerOff) return;
  Axis& tripped = axes_.at(axis - 1);
  const bool is_news = !tripped.InFault() || tripped.error_code() != error_code;
  tripped.Trip(error_code);
  for (Axis& other : axes_) other.Trip(0);
  if (is_news) errors_.Report(error_code);
}

void Node::LoseWatchedNode() {
  for (Axis& axis : axes_) {
    axis.ShowError(ErrorControl::kHeartbeatError);
    axis.AbortConnection(ErrorControl::kHeartbeatError);
  }
  errors_.Report(ErrorControl::kHeartbeatError);
  Enter(errors_.StateAfterError());
}

void Node::AbortConnection(std::uint16_t error_code) {
  if (InFault()) return;
  for (Axis& axis : axes_) axis.AbortConnection(error_code);
  if (InFault()) errors_.Report(error_code);
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

}  // namespace sim
