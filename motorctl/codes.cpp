// Codes that a drive hands out, and their meanings.
#include <algorithm>

#include "words.h"

namespace motorctl {
namespace {

struct AbortRow {
  std::uint32_t code;
  const char* text;
};

struct ErrorRow {
  std::uint16_t code;
  const char* text;
};

// CiA 301, protocol SDO abort transfer: the codes, all of them. Ascending.
constexpr AbortRow kAbortCodes[] = {
    {0x05030000, "Toggle bit not alternated"},
    {0x05040000, "SDO protocol timed out"},
    {0x05040001, "Command specifier not valid or unknown"},
    {0x05040002, "Invalid block size"},
    {0x05040003, "Invalid sequence number"},
    {0x05040004, "CRC error"},
    {0x05040005, "Out of memory"},
    {0x06010000, "Unsupported access to an object"},
    {0x06010001, "Attempt to read a write-only object"},
    {0x06010002, "Attempt to write a read-only object"},
    {0x06020000, "Object does not exist"},
    {0x06040041, "Object cannot be mapped to the PDO"},
    {0x06040042, "Mapped objects would exceed the length of the PDO"},
    {0x06040043, "General parameter incompatibility"},
    {0x06040047, "General internal incompatibility in the device"},
    {0x06060000, "Access failed due to a hardware error"},
    {0x06070010, "Data type or length does not match"},
    {0x06070012, "Data type does not match, too long"},
    {0x06070013, "Data type does not match, too short"},
    {0x06090011, "Sub-index does not exist"},
    {0x06090030, "Invalid value"},
    {0x06090031, "Value too high"},
    {0x06090032, "Value too low"},
    {0x06090036, "Maximum is less than minimum"},
    {0x060A0023, "No SDO connection available"},
    {0x08000000, "General error"},
    {0x08000020, "Data cannot be transferred or stored"},
    {0x08000021, "Data cannot be transferred or stored: local control"},
    {0x08000022, "Data cannot be transferred or stored in the present state of the device"},
    {0x08000023, "No object dictionary, or it cannot be generated"},
    {0x08000024, "No data available"},
};

// Emergency error codes of CiA 301 (classes, communication) and CiA 402 (drives). Ascending.
// packaging/kinco.yaml has the same texts.
constexpr ErrorRow kErrorCodes[] = {
    {0x0000, "No error"},
    {0x1000, "Generic error"},
    {0x2000, "Current"},
    {0x2100, "Current, device input side"},
    {0x2110, "Short circuit or earth leakage, input side"},
    {0x2120, "Earth leakage, input side"},
    {0x2121, "Earth leakage, phase L1"},
    {0x2122, "Earth leakage, phase L2"},
    {0x2123, "Earth leakage, phase L3"},
    {0x2130, "Short circuit, input side"},
    {0x2131, "Short circuit, phases L1 and L2"},
    {0x2132, "Short circuit, phases L2 and L3"},
    {0x2133, "Short circuit, phases L3 and L1"},
    {0x2200, "Internal current"},
    {0x2211, "Internal current, no. 1"},
    {0x2212, "Internal current, no. 2"},
    {0x2213, "Over current in ramp function"},
    {0x2214, "Over current in the sequence"},
    {0x2220, "Continuous over current, device internal"},
    {0x2221, "Continuous over current, device internal, no. 1"},
    {0x2222, "Continuous over current, device internal, no. 2"},
    {0x2230, "Short circuit or earth leakage, device internal"},
    {0x2240, "Earth leakage, device internal"},
    {0x2250, "Short circuit, device internal"},
    {0x2300, "Current, device output side"},
    {0x2310, "Continuous over current"},
    {0x2311, "Continuous over current, no. 1"},
    {0x2312, "Continuous over current, no. 2"},
    {0x2320, "Short circuit or earth leakage, motor side"},
    {0x2330, "Earth leakage, motor side"},
    {0x2331, "Earth leakage, phase U"},
    {0x2332, "Earth leakage, phase V"},
    {0x2333, "Earth leakage, phase W"},
    {0x2340, "Short circuit, motor side"},
    {0x2341, "Short circuit, phases U and V"},
    {0x2342, "Short circuit, phases V and W"},
    {0x2343, "Short circuit, phases W and U"},
    {0x3000, "Voltage"},
    {0x3100, "Mains voltage"},
    {0x3110, "Mains over voltage"},
    {0x3111, "Mains over voltage, phase L1"},
    {0x3112, "Mains over voltage, phase L2"},
    {0x3113, "Mains over voltage, phase L3"},
    {0x3120, "Mains under voltage"},
    {0x3121, "Mains under voltage, phase L1"},
    {0x3122, "Mains under voltage, phase L2"},
    {0x3123, "Mains under voltage, phase L3"},
    {0x3130, "Phase failure"},
    {0x3131, "Phase failure, L1"},
    {0x3132, "Phase failure, L2"},
    {0x3133, "Phase failure, L3"},
    {0x3134, "Phase sequence"},
    {0x3140, "Mains frequency"},
    {0x3141, "Mains frequency too great"},
    {0x3142, "Mains frequency too small"},
    {0x3200, "DC link voltage"},
    {0x3210, "DC link over voltage"},
    {0x3211, "DC link over voltage, no. 1"},
    {0x3212, "DC link over voltage, no. 2"},
    {0x3220, "DC link under voltage"},
    {0x3221, "DC link under voltage, no. 1"},
    {0x3222, "DC link under voltage, no. 2"},
    {0x3230, "Load error"},
    {0x3300, "Output voltage"},
    {0x3310, "Output over voltage"},
    {0x3311, "Output over voltage, phase U"},
    {0x3312, "Output over voltage, phase V"},
    {0x3313, "Output over voltage, phase W"},
    {0x3320, "Armature circuit"},
    {0x3321, "Armature circuit interrupted"},
    {0x3330, "Field circuit"},
    {0x3331, "Field circuit interrupted"},
    {0x4000, "Temperature"},
    {0x4100, "Ambient temperature"},
    {0x4110, "Ambient temperature too high"},
    {0x4120, "Ambient temperature too low"},
    {0x4130, "Supply air temperature"},
    {0x4140, "Air outlet temperature"},
    {0x4200, "Device temperature"},
    {0x4210, "Device temperature too high"},
    {0x4220, "Device temperature too low"},
    {0x4300, "Drive temperature"},
    {0x4310, "Drive temperature too high"},
    {0x4320, "Drive temperature too low"},
    {0x4400, "Supply temperature"},
    {0x4410, "Supply temperature too high"},
    {0x4420, "Supply temperature too low"},
    {0x5000, "Device hardware"},
    {0x5100, "Device supply"},
    {0x5110, "Low-voltage supply"},
    {0x5111, "Supply of +15 V or -15 V"},
    {0x5112, "Supply of +24 V"},
    {0x5113, "Supply of +5 V"},
    {0x5114, "Supply U4, manufacturer-specific"},
    {0x5115, "Supply U5, manufacturer-specific"},
    {0x5116, "Supply U6, manufacturer-specific"},
    {0x5117, "Supply U7, manufacturer-specific"},
    {0x5118, "Supply U8, manufacturer-specific"},
    {0x5119, "Supply U9, manufacturer-specific"},
    {0x5120, "Supply of the intermediate circuit"},
    {0x5200, "Control hardware"},
    {0x5210, "Measurement circuit"},
    {0x5220, "Computing circuit"},
    {0x5300, "Operating unit"},
    {0x5400, "Power section"},
    {0x5410, "Output stages"},
    {0x5420, "Chopper"},
    {0x5430, "Input stages"},
    {0x5440, "Contacts"},
    {0x5441, "Contact 1, manufacturer-specific"},
    {0x5442, "Contact 2, manufacturer-specific"},
    {0x5443, "Contact 3, manufacturer-specific"},
    {0x5444, "Contact 4, manufacturer-specific"},
    {0x5445, "Contact 5, manufacturer-specific"},
    {0x5450, "Fuses"},
    {0x5451, "Fuse of phase L1"},
    {0x5452, "Fuse of phase L2"},
    {0x5453, "Fuse of phase L3"},
    {0x5454, "Fuse 4, manufacturer-specific"},
    {0x5455, "Fuse 5, manufacturer-specific"},
    {0x5500, "Hardware memory"},
    {0x5510, "RAM"},
    {0x5520, "Program memory (ROM)"},
    {0x5530, "Non-volatile memory (EEPROM)"},
    {0x6000, "Device software"},
    {0x6010, "Software reset by the watchdog"},
    {0x6100, "Internal software"},
    {0x6200, "User software"},
    {0x6300, "Data record"},
    {0x6301, "Data record no. 1"},
    {0x6302, "Data record no. 2"},
    {0x6303, "Data record no. 3"},
    {0x6310, "Loss of parameters"},
    {0x6320, "Parameter error"},
    {0x7000, "Additional modules"},
    {0x7100, "Power, additional modules"},
    {0x7110, "Brake chopper"},
    {0x7111, "Failure of the brake chopper"},
    {0x7112, "Over current in the brake chopper"},
    {0x7113, "Protective circuit of the brake chopper"},
    {0x7120, "Motor"},
    {0x7121, "Motor blocked"},
    {0x7122, "Motor error or commutation malfunction"},
    {0x7123, "Motor tilted"},
    {0x7200, "Measurement circuit, additional modules"},
    {0x7300, "Sensor"},
    {0x7301, "Tachometer fault"},
    {0x7302, "Tachometer with wrong polarity"},
    {0x7303, "Resolver 1 fault"},
    {0x7304, "Resolver 2 fault"},
    {0x7305, "Incremental encoder 1 fault"},
    {0x7306, "Incremental encoder 2 fault"},
    {0x7307, "Incremental encoder 3 fault"},
    {0x7310, "Speed sensing"},
    {0x7320, "Position sensing"},
    {0x7400, "Computation circuit, additional modules"},
    {0x7500, "Communication"},
    {0x7510, "Serial interface 1"},
    {0x7520, "Serial interface 2"},
    {0x7600, "External data storage"},
    {0x8000, "Monitoring"},
    {0x8100, "Communication monitoring"},
    {0x8110, "CAN overrun, objects lost"},
    {0x8120, "CAN error passive"},
    {0x8130, "Life guard or heartbeat missing"},
    {0x8140, "CAN recovered from bus-off"},
    {0x8150, "CAN identifier collision"},
    {0x8200, "Protocol error"},
    {0x8210, "PDO not processed, too short"},
    {0x8220, "PDO longer than its mapping"},
    {0x8230, "Multiplex PDO not processed, object not available"},
    {0x8240, "Unexpected data length of SYNC"},
    {0x8250, "Timeout of an RPDO"},
    {0x8300, "Torque control"},
    {0x8311, "Excess torque"},
    {0x8312, "Difficult start-up"},
    {0x8313, "Standstill torque"},
    {0x8321, "Insufficient torque"},
    {0x8331, "Torque fault"},
    {0x8400, "Speed controller"},
    {0x8500, "Position controller"},
    {0x8600, "Positioning controller"},
    {0x8611, "Following error"},
    {0x8612, "Reference limit"},
    {0x8700, "Synchronisation controller"},
    {0x8800, "Winding controller"},
    {0x8900, "Process data monitoring"},
    {0x8A00, "Control monitoring"},
    {0x9000, "External error"},
    {0xF000, "Additional functions"},
    {0xF001, "Deceleration"},
    {0xF002, "Sub-synchronous run"},
    {0xF003, "Stroke operation"},
    {0xF004, "Control, additional functions"},
    {0xFF00, "Manufacturer-specific error"},
};

constexpr const char* kUnknownErrorCode = "unknown error code";

template <typename Row, std::size_t kRows, typename Code>
const char* FindRow(const Row (&rows)[kRows], Code code) {
  const Row* row = std::lower_bound(std::begin(rows), std::end(rows), code,
                                    [](const Row& left, Code right) { return left.code < right; });
  return row != std::end(rows) && row->code == code ? row->text : nullptr;
}

}  // namespace

const char* FindAbortCode(std::uint32_t code) { return FindRow(kAbortCodes, code); }

std::string AbortCodeText(std::uint32_t code) {
  const char* text = FindAbortCode(code);
  return text != nullptr ? text : "unknown abort code";
}

const char* FindErrorCode(std::uint16_t code) { return FindRow(kErrorCodes, code); }

std::string ErrorCodeText(std::uint16_t code) {
  if (const char* text = FindErrorCode(code)) return text;
  // 0x00xx means "error reset or no error"; the other codes fall into groups by their first digits.
  if (code <= 0x00FF) return FindErrorCode(0);
  if (code >= 0xFF00) return FindErrorCode(0xFF00);
  for (const unsigned mask : {0xFFF0U, 0xFF00U, 0xF000U}) {
    const auto group = static_cast<std::uint16_t>(code & mask);
    if (const char* name = group != 0 ? FindErrorCode(group) : nullptr) {
      return std::string("unlisted code of the group ") + name;
    }
  }
  return kUnknownErrorCode;
}

bool IsErrorCode(std::uint16_t code) { return ErrorCodeText(code) != kUnknownErrorCode; }

}  // namespace motorctl
