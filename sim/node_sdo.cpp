// The SDO server of a node, with what its faults do to requests and replies.
#include "sim/node.h"

namespace sim {
namespace {

constexpr std::uint32_t kSdoReplyBase = 0x580;

}  // namespace

void Node::ReceiveParameterChannel(const Frame& frame) {
  const auto offset = static_cast<std::uint16_t>(options_.node_id << 12);
  const std::uint16_t index = DecodeSdoRequest(frame.data).index;
  // Every other index is the business of another axis on the bus.
  if (((index - offset) & 0xF000) != 0x2000) return;
  ++received_.sdo;
  ReceiveSdo(frame, 0, offset);
}

void Node::ReceiveSdo(const Frame& frame, std::uint8_t channel, std::uint16_t index_offset) {
  // CiA 301: SDO frames have eight bytes, and there is no SDO in the state stopped.
  if (nmt_state_ == NmtState::kStopped || frame.length != 8) return;
  const SdoRequest request = DecodeSdoRequest(frame.data);
  const SdoFaults::Verdict verdict = sdo_faults_.Judge(request);
  switch (verdict.action) {
    case SdoFaults::Verdict::Action::kIgnore:
      return;
    case SdoFaults::Verdict::Action::kAbort:
      SendSdoReply(channel, SdoAbort(request.index, request.sub, verdict.code));
      return;
    case SdoFaults::Verdict::Action::kServe:
      break;
  }
  SdoRequest own = request;
  own.index = static_cast<std::uint16_t>(request.index - index_offset);
  auto reply = ServeSdo(dictionary_, own);
  if (!reply) return;
  PutLittleEndian(reply->begin() + 1, 2, request.index);
  SendSdoReply(channel, *reply);
}

void Node::SendSdoReply(std::uint8_t channel, const SdoBytes& bytes) {
  const SdoFaults::Reply& fault = sdo_faults_.reply();
  Frame frame{kSdoReplyBase + channel, fault.length, bytes};
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

void Node::SendLateReplies() {
  while (!late_replies_.empty() && now_ >= late_replies_.front().at) {
    send_(late_replies_.front().frame);
    late_replies_.pop_front();
  }
}

}  // namespace sim
