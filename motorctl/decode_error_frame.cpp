// Error frames of the kernel in words: linux/can/error.h.
#include <linux/can/error.h>

#include <cstdint>
#include <string>
#include <vector>

#include "decode.h"

namespace motorctl {
namespace {

struct Bit {
  std::uint32_t bit;
  const char* text;
};

constexpr std::uint32_t kCounters = 0x200;  // CAN_ERR_CNT, from Linux 6.0 on

constexpr Bit kClasses[] = {
    {CAN_ERR_TX_TIMEOUT, "transmit time-out"},
    {CAN_ERR_LOSTARB, "arbitration lost"},
    {CAN_ERR_CRTL, "controller problem"},
    {CAN_ERR_PROT, "protocol violation"},
    {CAN_ERR_TRX, "transceiver"},
    {CAN_ERR_ACK, "no acknowledge"},
    {CAN_ERR_BUSOFF, "bus off"},
    {CAN_ERR_BUSERROR, "bus error"},
    {CAN_ERR_RESTARTED, "controller restarted"},
    {kCounters, "error counters"},
};

constexpr Bit kController[] = {
    {CAN_ERR_CRTL_RX_OVERFLOW, "receive buffer overflow"},
    {CAN_ERR_CRTL_TX_OVERFLOW, "transmit buffer overflow"},
    {CAN_ERR_CRTL_RX_WARNING, "warning level of receive errors"},
    {CAN_ERR_CRTL_TX_WARNING, "warning level of transmit errors"},
    {CAN_ERR_CRTL_RX_PASSIVE, "error-passive by receive errors"},
    {CAN_ERR_CRTL_TX_PASSIVE, "error-passive by transmit errors"},
    {CAN_ERR_CRTL_ACTIVE, "error-active again"},
};

constexpr Bit kProtocol[] = {
    {CAN_ERR_PROT_BIT, "single bit"},
    {CAN_ERR_PROT_FORM, "frame format"},
    {CAN_ERR_PROT_STUFF, "bit stuffing"},
    {CAN_ERR_PROT_BIT0, "no dominant bit could be sent"},
    {CAN_ERR_PROT_BIT1, "no recessive bit could be sent"},
    {CAN_ERR_PROT_OVERLOAD, "bus overload"},
    {CAN_ERR_PROT_ACTIVE, "active error announcement"},
    {CAN_ERR_PROT_TX, "while transmitting"},
};

constexpr Bit kLocations[] = {
    {CAN_ERR_PROT_LOC_SOF, "start of frame"},
    {CAN_ERR_PROT_LOC_ID28_21, "identifier bits 28 to 21"},
    {CAN_ERR_PROT_LOC_ID20_18, "identifier bits 20 to 18"},
    {CAN_ERR_PROT_LOC_SRTR, "substitute RTR"},
    {CAN_ERR_PROT_LOC_IDE, "identifier extension"},
    {CAN_ERR_PROT_LOC_ID17_13, "identifier bits 17 to 13"},
    {CAN_ERR_PROT_LOC_ID12_05, "identifier bits 12 to 5"},
    {CAN_ERR_PROT_LOC_ID04_00, "identifier bits 4 to 0"},
    {CAN_ERR_PROT_LOC_RTR, "RTR"},
    {CAN_ERR_PROT_LOC_RES1, "reserved bit 1"},
    {CAN_ERR_PROT_LOC_RES0, "reserved bit 0"},
    {CAN_ERR_PROT_LOC_DLC, "data length code"},
    {CAN_ERR_PROT_LOC_DATA, "data"},
    {CAN_ERR_PROT_LOC_CRC_SEQ, "CRC sequence"},
    {CAN_ERR_PROT_LOC_CRC_DEL, "CRC delimiter"},
    {CAN_ERR_PROT_LOC_ACK, "acknowledge slot"},
    {CAN_ERR_PROT_LOC_ACK_DEL, "acknowledge delimiter"},
    {CAN_ERR_PROT_LOC_EOF, "end of frame"},
    {CAN_ERR_PROT_LOC_INTERM, "intermission"},
};

// The low half of the byte is the wire CANH, the high half CANL.
constexpr Bit kTransceiverHigh[] = {
    {CAN_ERR_TRX_CANH_NO_WIRE, "CANH: no wire"},
    {CAN_ERR_TRX_CANH_SHORT_TO_BAT, "CANH: short to battery"},
    {CAN_ERR_TRX_CANH_SHORT_TO_VCC, "CANH: short to supply"},
    {CAN_ERR_TRX_CANH_SHORT_TO_GND, "CANH: short to ground"},
};
constexpr Bit kTransceiverLow[] = {
    {CAN_ERR_TRX_CANL_NO_WIRE, "CANL: no wire"},
    {CAN_ERR_TRX_CANL_SHORT_TO_BAT, "CANL: short to battery"},
    {CAN_ERR_TRX_CANL_SHORT_TO_VCC, "CANL: short to supply"},
    {CAN_ERR_TRX_CANL_SHORT_TO_GND, "CANL: short to ground"},
    {CAN_ERR_TRX_CANL_SHORT_TO_CANH, "CANL: short to CANH"},
};

using Texts = std::vector<std::string>;

template <std::size_t kRows>
void AddBits(const Bit (&rows)[kRows], std::uint32_t bits, Texts& texts) {
  for (const Bit& row : rows) {
    if ((bits & row.bit) != 0) texts.emplace_back(row.text);
  }
}

template <std::size_t kRows>
void AddNumber(const Bit (&rows)[kRows], std::uint32_t number, const char* title, Texts& texts) {
  if (number == 0) return;
  for (const Bit& row : rows) {
    if (number != row.bit) continue;
    texts.push_back(std::string(title) + row.text);
    return;
  }
  texts.push_back(std::string(title) + Hex(number, 2));
}

Texts DetailsOf(std::uint32_t error_class, const std::uint8_t* data) {
  Texts texts;
  switch (error_class) {
    case CAN_ERR_LOSTARB:
      if (data[0] != CAN_ERR_LOSTARB_UNSPEC) texts.push_back("at bit " + std::to_string(data[0]));
      break;
    case CAN_ERR_CRTL:
      AddBits(kController, data[1], texts);
      break;
    case CAN_ERR_PROT:
      AddBits(kProtocol, data[2], texts);
      AddNumber(kLocations, data[3], "in: ", texts);
      break;
    case CAN_ERR_TRX:
      AddNumber(kTransceiverHigh, data[4] & 0x0FU, "", texts);
      AddNumber(kTransceiverLow, data[4] & 0xF0U, "", texts);
      break;
    default:
      break;
  }
  return texts;
}

std::string Join(const Texts& texts) {
  std::string joined;
  for (const std::string& text : texts) joined.append(joined.empty() ? "" : ", ").append(text);
  return joined;
}

}  // namespace

bool TellsControllerState(std::uint32_t classes) {
  return (classes & (CAN_ERR_CRTL | CAN_ERR_BUSOFF | CAN_ERR_RESTARTED)) != 0;
}

Meaning DecodeErrorFrame(const LoggedFrame& frame) {
  Texts names;
  Texts details;
  Texts classes;
  for (const Bit& row : kClasses) {
    if ((frame.id & row.bit) == 0) continue;
    const Texts of_class = DetailsOf(row.bit, frame.data.data());
    names.emplace_back(row.text);
    classes.push_back(of_class.empty() ? row.text
                                       : std::string(row.text) + " (" + Join(of_class) + ")");
    details.insert(details.end(), of_class.begin(), of_class.end());
  }
  Meaning meaning{"error_frame", "error reported by the controller: " +
                                     (classes.empty() ? "unknown" : Join(classes))};
  meaning.fields.AddList("errors", names).AddList("details", details);
  // Drivers fill in the counters of the controller; old ones without telling so by a class.
  const unsigned transmit = frame.data[6];
  const unsigned receive = frame.data[7];
  if (transmit != 0 || receive != 0) {
    meaning.text += "; transmit errors " + std::to_string(transmit) + ", receive errors " +
                    std::to_string(receive);
    meaning.fields.Add("transmit_errors", transmit).Add("receive_errors", receive);
  }
  return meaning;
}

}  // namespace motorctl
