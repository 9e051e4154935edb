// Layer setting services (CiA 305), which give nodes their number and bit rate.
#include <cstdint>
#include <string>

#include "decode.h"

namespace motorctl {
namespace {

enum Command : unsigned {
  kSwitchAll = 4,
  kSetNode = 17,
  kSetBitRate = 19,
  kActivateBitRate = 21,
  kStore = 23,
  kSelectVendor = 64,
  kSelectSerial = 67,
  kSelected = 68,
  kIdentifyVendor = 70,
  kIdentifySerialHigh = 75,
  kIdentifyUnset = 76,
  kIdentified = 79,
  kIdentifiedUnset = 80,
  kFastScan = 81,
  kAskVendor = 90,
  kAskSerial = 93,
  kAskNode = 94,
};

constexpr const char* kIdentity[] = {"vendor-ID", "product code", "revision number",
                                     "serial number"};
constexpr const char* kIdentityRange[] = {
    "vendor-ID",        "product code",         "lowest revision",
    "highest revision", "lowest serial number", "highest serial number"};

// Table 0 of CiA 305.
constexpr const char* kBitRates[] = {"1000 kbit/s", "800 kbit/s", "500 kbit/s", "250 kbit/s",
                                     "125 kbit/s",  "reserved",   "50 kbit/s",  "20 kbit/s",
                                     "10 kbit/s",   "automatic"};

std::string BitRateText(const std::uint8_t* data) {
  if (data[1] == 0 && data[2] < std::size(kBitRates)) return kBitRates[data[2]];
  return "entry " + std::to_string(data[2]) + " of table " + std::to_string(data[1]);
}

std::string Numbered(const char* name, const std::uint8_t* data) {
  return std::string(name) + " " + Hex(LittleEndian(data + 1, 4), 8);
}

std::string NodeText(std::uint8_t node) { return node == 0xFF ? "none" : std::to_string(node); }

// What a node says to a setting.
std::string ResultText(const std::uint8_t* data, const char* first, const char* second) {
  switch (data[1]) {
    case 0:
      return "done";
    case 1:
      return std::string("refused: ") + first;
    case 2:
      if (second != nullptr) return std::string("refused: ") + second;
      break;
    case 0xFF:
      return "refused: error of the maker " + Hex(data[2], 2);
    default:
      break;
  }
  return "refused: error " + std::to_string(data[1]);
}

std::string RequestText(const std::uint8_t* data) {
  const unsigned command = data[0];
  if (command >= kSelectVendor && command <= kSelectSerial) {
    return "select " + Numbered(kIdentity[command - kSelectVendor], data);
  }
  if (command >= kIdentifyVendor && command <= kIdentifySerialHigh) {
    return "who has " + Numbered(kIdentityRange[command - kIdentifyVendor], data);
  }
  if (command >= kAskVendor && command <= kAskSerial) {
    return std::string("ask for the ") + kIdentity[command - kAskVendor];
  }
  switch (command) {
    case kSwitchAll:
      if (data[1] > 1) break;
      return data[1] == 0 ? "all nodes: waiting" : "all nodes: configuration";
    case kSetNode:
      return "set node-ID " + NodeText(data[1]);
    case kSetBitRate:
      return "set bit rate: " + BitRateText(data);
    case kActivateBitRate:
      return "use the bit rate after " + std::to_string(LittleEndian(data + 1, 2)) + " ms";
    case kStore:
      return "store the settings";
    case kIdentifyUnset:
      return "who has no node-ID";
    case kFastScan:
      if (data[5] == 0x80) return "fast scan: who is there";
      if (data[5] > 31 || data[6] >= std::size(kIdentity)) break;
      return "fast scan: " + Numbered(kIdentity[data[6]], data) + " from bit " +
             std::to_string(data[5]) + " up";
    case kAskNode:
      return "ask for the node-ID";
    default:
      break;
  }
  return {};
}

std::string ResponseText(const std::uint8_t* data) {
  const unsigned command = data[0];
  if (command >= kAskVendor && command <= kAskSerial) {
    return Numbered(kIdentity[command - kAskVendor], data);
  }
  switch (command) {
    case kSetNode:
      return "node-ID: " + ResultText(data, "out of range", nullptr);
    case kSetBitRate:
      return "bit rate: " + ResultText(data, "not supported", nullptr);
    case kStore:
      return "storing: " + ResultText(data, "not supported", "no access to the memory");
    case kSelected:
      return "node selected";
    case kIdentified:
      return "node found";
    case kIdentifiedUnset:
      return "node without node-ID found";
    case kAskNode:
      return "node-ID " + NodeText(data[1]);
    default:
      return {};
  }
}

}  // namespace

Meaning DecodeLss(const std::uint8_t* data, bool response) {
  const std::string text = response ? ResponseText(data) : RequestText(data);
  Meaning meaning{response ? "lss_response" : "lss_request",
                  "LSS: " + (text.empty() ? "unknown command: " + BytesText(data, 8) : text)};
  meaning.fields.Add("command", data[0]);
  return meaning;
}

}  // namespace motorctl
