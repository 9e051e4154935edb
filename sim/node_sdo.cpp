// The SDO servers of a node, with what its faults do to requests and replies.
#include "sim/identifiers.h"
#include "sim/node.h"

namespace sim {
namespace {

bool NamesObject(const SdoRequest& request) {
  return request.kind != SdoRequest::Kind::kDownloadSegment &&
         request.kind != SdoRequest::Kind::kUploadSegment;
}

}  // namespace

void Node::ReceiveParameterChannel(const Frame& frame) {
  const SdoRequest request = DecodeSdoRequest(frame.data);
  // Every other index is the business of another axis on the bus, as are segments of a transfer
  // that was not begun here.
  const unsigned own = (request.index - ParameterOffset(options_)) & 0xF000U;
  if (NamesObject(request) ? own != 0x2000 : !parameter_server_.busy()) return;
  ++received_.sdo;
  ReceiveSdo(frame, 0, parameter_server_);
}

std::uint16_t Node::ParameterOffset(const Options& options) {
  return static_cast<std::uint16_t>(options.node_id << 12);
}

void Node::ReceiveSdo(const Frame& frame, std::uint8_t channel, SdoServer& server) {
  // CiA 301: SDO frames have eight bytes, and there is no SDO in the state stopped.
  if (nmt_state_ == NmtState::kStopped || frame.length != 8) return;
  const SdoRequest request = DecodeSdoRequest(frame.data);
  const SdoFaults::Verdict verdict = sdo_faults_.Judge(request);
  switch (verdict.action) {
    case SdoFaults::Verdict::Action::kIgnore:
      return;
    case SdoFaults::Verdict::Action::kAbort:
      SendSdoReply(channel, server.busy() ? server.Abort(verdict.code)
                                          : SdoAbort(request.index, request.sub, verdict.code));
      return;
    case SdoFaults::Verdict::Action::kServe:
      break;
  }
  if (auto reply = server.Serve(request, now_)) {
    sdo_faults_.Spoil(*reply);
    SendSdoReply(channel, *reply);
  }
}

void Node::SendSdoReply(std::uint8_t channel, const SdoBytes& bytes) {
  const SdoFaults::Reply& fault = sdo_faults_.reply();
  Frame frame{kSdoResponse + channel, fault.length, bytes};
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

void Node::EndLateTransfers() {
  // CiA 301: nothing is sent in the state stopped.
  const auto step = [this](std::uint8_t channel, SdoServer& server) {
    const auto abort = server.Step(now_);
    if (abort && nmt_state_ != NmtState::kStopped) SendSdoReply(channel, *abort);
  };
  step(options_.node_id, server_);
  step(0, parameter_server_);
}

void Node::CloseTransfers() {
  server_.Close();
  parameter_server_.Close();
  late_replies_.clear();
}

}  // namespace sim
