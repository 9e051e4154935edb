// Which frames are segments of an SDO block transfer (CiA 301).
#include <algorithm>
#include <cstdint>

#include "decode.h"
#include "identifiers.h"

namespace motorctl {
namespace {

constexpr unsigned kReadyForBlocks = 0xA0;  // of a server, with or without CRC: the client may send
constexpr unsigned kStartOfBlocks = 0xA3;   // of a client: the server may send
constexpr unsigned kTaken = 0xA2;
constexpr unsigned kAbort = 0x80;

}  // namespace

std::optional<Meaning> BlockTransfers::Decode(const LoggedFrame& frame) {
  const std::uint32_t base = frame.id & ~kNodeMask;
  if (frame.kind != LoggedFrame::Kind::kData || frame.extended || frame.length != 8 ||
      (base != kSdoResponse && base != kSdoRequest)) {
    return std::nullopt;
  }
  const bool response = base == kSdoResponse;
  const unsigned command = frame.data[0];
  const unsigned node = frame.id & kNodeMask;
  if (response ? (command & ~4U) == kReadyForBlocks : command == kStartOfBlocks) {
    Start(frame, !response);
    return std::nullopt;
  }
  const auto running =
      std::find_if(running_.begin(), running_.end(), [&](const Transfer& transfer) {
        return transfer.node == node && transfer.interface == frame.interface;
      });
  if (running == running_.end()) return std::nullopt;
  const unsigned number = command & 0x7F;
  if (response != running->upload || command == kAbort) {
    // The other side acknowledges blocks; whatever else it says, there are no more of them.
    const bool goes_on = command == kTaken && response != running->upload &&
                         (running->last == 0 || frame.data[1] < running->last);
    if (!goes_on) running_.erase(running);
    return std::nullopt;
  }
  const bool last = (command & 0x80) != 0;
  running->last = last ? number : 0;
  Meaning meaning{response ? "sdo_response" : "sdo_request",
                  "SDO node " + std::to_string(node) + ": " +
                      (last ? "last segment " : "segment ") + std::to_string(number) +
                      " of the block: " + BytesText(&frame.data[1], 7)};
  meaning.fields.Add("node", node)
      .Add("command", "block_segment")
      .Add("segment", number)
      .Add("last", last);
  return meaning;
}

void BlockTransfers::Start(const LoggedFrame& frame, bool upload) {
  const unsigned node = frame.id & kNodeMask;
  const auto same = [&](const Transfer& transfer) {
    return transfer.node == node && transfer.interface == frame.interface;
  };
  running_.erase(std::remove_if(running_.begin(), running_.end(), same), running_.end());
  running_.push_back({std::string(frame.interface), node, upload, 0});
}

}  // namespace motorctl
