#include "decode.h"

#include <algorithm>
#include <cstdint>

#include "identifiers.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kLssResponse = 0x7E4;
constexpr std::uint32_t kLssRequest = 0x7E5;

Meaning Odd(const LoggedFrame& frame, const std::string& what) {
  return {"unknown", what + ": " + BytesText(frame.data.data(), frame.length)};
}

Meaning DecodeNmt(const LoggedFrame& frame) {
  if (frame.length != 2) return Odd(frame, "NMT command of wrong length");
  const std::string command = NmtCommandText(frame.data[0]);
  const unsigned node = frame.data[1];
  return {"nmt", "NMT: " + command + ", " + (node == 0 ? "all nodes" : NodeText(node)),
          Fields().Add("node", node).Add("command", command)};
}

Meaning DecodeSync(const LoggedFrame& frame) {
  Meaning meaning{"sync", "SYNC"};
  if (frame.length > 0) {
    meaning.text += " " + std::to_string(frame.data[0]);
    meaning.fields.Add("counter", frame.data[0]);
  }
  return meaning;
}

// 28 bits of milliseconds after midnight, then the days since 1 January 1984.
Meaning DecodeTime(const LoggedFrame& frame) {
  if (frame.length != 6) return Odd(frame, "time stamp of wrong length");
  const std::uint32_t milliseconds = LittleEndian(frame.data.data(), 4) & 0x0FFFFFFF;
  const std::uint32_t days = LittleEndian(&frame.data[4], 2);
  return {"time",
          "time stamp: day " + std::to_string(days) + " after 1984-01-01, " +
              std::to_string(milliseconds) + " ms after midnight",
          Fields().Add("days", days).Add("milliseconds", milliseconds)};
}

Meaning DecodeHeartbeat(const LoggedFrame& frame, unsigned node) {
  if (frame.length != 1) return Odd(frame, "heartbeat of wrong length");
  // The uppermost bit toggles in answers to node guarding.
  const auto state = static_cast<std::uint8_t>(frame.data[0] & 0x7F);
  const std::string text = NmtStateText(state);
  const bool boot_up = frame.data[0] == 0;
  return {boot_up ? "boot_up" : "heartbeat",
          boot_up ? "boot-up of " + NodeText(node) : "heartbeat of " + NodeText(node) + ": " + text,
          Fields().Add("node", node).Add("state", text)};
}

Meaning WithNode(const char* title, unsigned node, Meaning meaning) {
  meaning.fields = Fields().Add("node", node).Append(meaning.fields);
  meaning.text = std::string(title) + NodeText(node) + ": " + meaning.text;
  return meaning;
}

Meaning DecodeRemote(const LoggedFrame& frame) {
  if (!frame.extended && frame.id > 0x700 && frame.id <= 0x77F) {
    const unsigned node = frame.id - 0x700;
    return {"node_guarding", "node guarding request to " + NodeText(node),
            Fields().Add("node", node)};
  }
  return {"remote", "remote request"};
}

// An identifier of the predefined connection set is a function and, in its lower seven bits, a
// node.
Meaning DecodeData(const LoggedFrame& frame, const Make* make) {
  const std::uint32_t base = frame.id & ~kNodeMask;
  const unsigned node = frame.id & kNodeMask;
  const bool addressed = node != 0 || (make != nullptr && make->serves_node_zero);
  if (frame.id == 0x000) return DecodeNmt(frame);
  if (frame.id == 0x080 && frame.length <= 1) return DecodeSync(frame);
  if (frame.id == 0x100) return DecodeTime(frame);
  if (base == 0x000 && make != nullptr && make->wake_up != 0 && frame.length == 2 &&
      LittleEndian(frame.data.data(), 2) == make->wake_up) {
    return {"activation", "activation of " + NodeText(node), Fields().Add("node", node)};
  }
  if (base == 0x080) {
    if (frame.length != 8) return Odd(frame, "emergency message of wrong length");
    return WithNode("emergency of ", node, DecodeEmergency(frame.data.data()));
  }
  if (base >= kFirstPdo && base < kSdoResponse && addressed) return DecodePdo(frame, base, make);
  if ((base == kSdoResponse || base == kSdoRequest) && addressed) {
    if (frame.length != 8) return Odd(frame, "SDO of wrong length");
    return WithNode("SDO ", node, DecodeSdo(frame.data.data(), base == kSdoResponse, make));
  }
  if (frame.id == kLssRequest || frame.id == kLssResponse) {
    if (frame.length != 8) return Odd(frame, "LSS of wrong length");
    return DecodeLss(frame.data.data(), frame.id == kLssResponse);
  }
  if (base == kHeartbeat && node != 0) return DecodeHeartbeat(frame, node);
  return Odd(frame, "no CANopen function at " + Hex(frame.id, 3));
}

}  // namespace

std::string NodeText(unsigned node) { return "node " + std::to_string(node); }

// Little-endian.
std::uint32_t LittleEndian(const std::uint8_t* data, unsigned bytes) {
  std::uint32_t number = 0;
  for (unsigned i = bytes; i > 0; --i) number = number << 8 | data[i - 1];
  return number;
}

// "37 02 00 00".
std::string BytesText(const std::uint8_t* data, unsigned bytes) {
  std::string text;
  for (unsigned i = 0; i < bytes; ++i) text.append(i == 0 ? "" : " ").append(Hex(data[i], 2), 2);
  return text;
}

Meaning DecodeEmergency(const std::uint8_t* data) {
  const auto code = static_cast<std::uint16_t>(LittleEndian(data, 2));
  Meaning meaning{"emergency",
                  Hex(code, 4) + " " + ErrorCodeText(code) + "; error register " + Hex(data[2], 2) +
                      " " + ErrorRegisterText(data[2]),
                  Fields()
                      .Add("error_code", code)
                      .Add("error_text", ErrorCodeText(code))
                      .Add("error_register", data[2])
                      .Add("manufacturer_bytes", BytesText(data + 3, 5))};
  if (std::any_of(data + 3, data + 8, [](std::uint8_t byte) { return byte != 0; })) {
    meaning.text += "; manufacturer bytes " + BytesText(data + 3, 5);
  }
  return meaning;
}

Meaning DecodeFrame(const LoggedFrame& frame, const Make* make) {
  switch (frame.kind) {
    case LoggedFrame::Kind::kError:
      return DecodeErrorFrame(frame);
    case LoggedFrame::Kind::kFd:
      return {"can_fd", "CAN FD, no CANopen frame"};
    case LoggedFrame::Kind::kRemote:
      return DecodeRemote(frame);
    case LoggedFrame::Kind::kData:
      break;
  }
  if (frame.extended) return {"extended", "29-bit identifier, no CANopen frame"};
  return DecodeData(frame, make);
}

}  // namespace motorctl
