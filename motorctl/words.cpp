#include "words.h"

#include <algorithm>

namespace motorctl {
namespace {

struct StateRow {
  std::uint16_t mask;
  std::uint16_t value;
  const char* text;
};

struct BitRow {
  unsigned bit;
  const char* text;
};

struct ByteRow {
  int value;
  const char* text;
};

// CiA 402: the bits 0 to 3, 5 and 6 that tell the states apart.
constexpr StateRow kStates[] = {
    {0x4F, 0x00, "Not ready to switch on"}, {0x4F, 0x40, "Switch on disabled"},
    {0x6F, 0x21, "Ready to switch on"},     {0x6F, 0x23, "Switched on"},
    {0x6F, 0x27, "Operation enabled"},      {0x6F, 0x07, "Quick stop active"},
    {0x4F, 0x0F, "Fault reaction active"},  {0x4F, 0x08, "Fault"},
};

// CiA 402: the other bits. 12 and 13 in the velocity modes, the only ones in use here.
constexpr BitRow kStatuswordBits[] = {
    {4, "voltage enabled"},      {7, "warning"},
    {8, "manufacturer bit 8"},   {9, "remote"},
    {10, "target reached"},      {11, "internal limit active"},
    {12, "speed is zero"},       {13, "slippage too high"},
    {14, "manufacturer bit 14"}, {15, "manufacturer bit 15"},
};

// CiA 402: commands of the controlword by its bits 0 to 3 and 7. First match wins.
constexpr StateRow kCommands[] = {
    {0x80, 0x80, "Fault reset"}, {0x82, 0x00, "Disable voltage"}, {0x86, 0x02, "Quick stop"},
    {0x87, 0x06, "Shutdown"},    {0x8F, 0x07, "Switch on"},       {0x8F, 0x0F, "Enable operation"},
};

constexpr BitRow kControlwordBits[] = {
    {4, "mode bit 4"},           {5, "mode bit 5"},
    {6, "mode bit 6"},           {8, "halt"},
    {9, "mode bit 9"},           {10, "reserved bit 10"},
    {11, "manufacturer bit 11"}, {12, "manufacturer bit 12"},
    {13, "manufacturer bit 13"}, {14, "manufacturer bit 14"},
    {15, "manufacturer bit 15"},
};

// CiA 301, object 0x1001.
constexpr BitRow kErrorRegisterBits[] = {
    {0, "generic"},       {1, "current"},        {2, "voltage"},  {3, "temperature"},
    {4, "communication"}, {5, "device profile"}, {6, "reserved"}, {7, "manufacturer"},
};

// CiA 402, object 0x6060.
constexpr ByteRow kModes[] = {
    {0, "No mode"},
    {1, "Profile position"},
    {2, "Velocity"},
    {3, "Profile velocity"},
    {4, "Torque profile"},
    {6, "Homing"},
    {7, "Interpolated position"},
    {8, "Cyclic synchronous position"},
    {9, "Cyclic synchronous velocity"},
    {10, "Cyclic synchronous torque"},
};

// CiA 301: heartbeat and node guarding, NMT node control.
constexpr ByteRow kNmtStates[] = {
    {0x00, "boot-up"}, {0x04, "stopped"}, {0x05, "operational"}, {0x7F, "pre-operational"}};
constexpr ByteRow kNmtCommands[] = {{0x01, "start"},
                                    {0x02, "stop"},
                                    {0x80, "enter pre-operational"},
                                    {0x81, "reset"},
                                    {0x82, "reset communication"}};

template <std::size_t kRows>
const char* FindMasked(const StateRow (&rows)[kRows], std::uint16_t word) {
  for (const StateRow& row : rows) {
    if ((word & row.mask) == row.value) return row.text;
  }
  return nullptr;
}

template <std::size_t kRows>
const char* FindByte(const ByteRow (&rows)[kRows], int value) {
  for (const ByteRow& row : rows) {
    if (row.value == value) return row.text;
  }
  return nullptr;
}

template <std::size_t kRows>
std::string BitNames(const BitRow (&rows)[kRows], unsigned word) {
  std::string names;
  for (const BitRow& row : rows) {
    if ((word >> row.bit & 1U) == 0) continue;
    if (!names.empty()) names += ", ";
    names += row.text;
  }
  return names;
}

std::string WithBits(const std::string& text, const std::string& bits) {
  return bits.empty() ? text : text + "; " + bits;
}

}  // namespace

std::string Hex(std::uint64_t value, int digits) {
  std::string text = "0x";
  int needed = 1;
  while (needed < 16 && value >> (4 * needed) != 0) ++needed;
  for (int digit = std::max(needed, digits) - 1; digit >= 0; --digit) {
    text += digit < 16 ? "0123456789ABCDEF"[value >> (4 * digit) & 0xF] : '0';
  }
  return text;
}

std::string ErrorRegisterText(std::uint8_t bits) {
  return bits == 0 ? "no error" : BitNames(kErrorRegisterBits, bits);
}

const char* FindState(std::uint16_t statusword) { return FindMasked(kStates, statusword); }

std::string StatuswordText(std::uint16_t statusword, const Make* make) {
  const char* state = FindState(statusword);
  std::string text = state != nullptr ? state : "no state of CiA 402";
  if (make != nullptr && make->emergency_stop_mask != 0 &&
      (statusword & make->emergency_stop_mask) == make->emergency_stop) {
    text += " (emergency stop)";
  }
  return WithBits(text, BitNames(kStatuswordBits, statusword));
}

std::string ControlwordText(std::uint16_t controlword) {
  return WithBits(FindMasked(kCommands, controlword), BitNames(kControlwordBits, controlword));
}

std::string ModeText(std::int8_t mode, const Make* make) {
  if (const char* text = FindByte(kModes, mode)) return text;
  if (make != nullptr) {
    for (const motor_driver::NamedMode& own : make->modes) {
      if (own.mode == mode) return own.name;
    }
  }
  return mode < 0 ? "manufacturer-specific mode" : "unknown mode";
}

std::string NmtStateText(std::uint8_t state) {
  const char* text = FindByte(kNmtStates, state);
  return text != nullptr ? text : "unknown state " + Hex(state, 2);
}

std::string NmtCommandText(std::uint8_t command) {
  const char* text = FindByte(kNmtCommands, command);
  return text != nullptr ? text : "unknown command " + Hex(command, 2);
}

}  // namespace motorctl
