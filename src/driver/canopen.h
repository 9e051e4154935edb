// Identifiers, commands and objects of CiA 301 (communication) and CiA 402 (drive profile) that
// more than one make uses. Manufacturer objects stand in the one file that uses them.
#pragma once

#include <cstdint>

namespace cia301 {

// COB-IDs of the predefined connection set: function code, to which the node-ID is added.
constexpr std::uint32_t kNmt = 0x000;
constexpr std::uint32_t kEmergency = 0x080;
constexpr std::uint32_t kTpdo1 = 0x180;
constexpr std::uint32_t kRpdo1 = 0x200;
constexpr std::uint32_t kTpdo2 = 0x280;
constexpr std::uint32_t kTpdo3 = 0x380;
constexpr std::uint32_t kTpdo4 = 0x480;
constexpr std::uint32_t kSdoResponse = 0x580;
constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kHeartbeat = 0x700;

constexpr std::uint32_t kBaseIdMask = 0x7FF;       // all bits of an 11-bit identifier
constexpr std::uint32_t kPdoInvalid = 0x80000000;  // COB-ID entry: the PDO does not exist

// SDO command specifiers of expedited transfers.
constexpr std::uint8_t kDownload1 = 0x2F;
constexpr std::uint8_t kDownload2 = 0x2B;
constexpr std::uint8_t kDownload3 = 0x27;
constexpr std::uint8_t kDownload4 = 0x23;
constexpr std::uint8_t kDownloadConfirmed = 0x60;
constexpr std::uint8_t kUpload = 0x40;
constexpr std::uint8_t kAbort = 0x80;
constexpr std::uint8_t kUploadConfirmed = 0x43;      // plus the number of unused bytes in bits 2, 3
constexpr std::uint8_t kUploadConfirmedMask = 0xF3;  // leaves those two bits out

// NMT command specifiers and states.
constexpr std::uint8_t kStartNode = 0x01;
constexpr std::uint8_t kEnterPreOperational = 0x80;
constexpr std::uint8_t kResetNode = 0x81;
constexpr std::uint8_t kBootUp = 0x00;
constexpr std::uint8_t kOperational = 0x05;
constexpr std::uint8_t kPreOperational = 0x7F;

// Object indices.
constexpr std::uint16_t kStoreParameters = 0x1010;
constexpr std::uint16_t kProducerHeartbeatTime = 0x1017;
constexpr std::uint16_t kRpdo1Communication = 0x1400;
constexpr std::uint16_t kRpdo1Mapping = 0x1600;
constexpr std::uint16_t kTpdo1Communication = 0x1800;
constexpr std::uint16_t kTpdo2Communication = 0x1801;
constexpr std::uint16_t kTpdo3Communication = 0x1802;
constexpr std::uint16_t kTpdo4Communication = 0x1803;
constexpr std::uint16_t kTpdo1Mapping = 0x1A00;
constexpr std::uint16_t kTpdo4Mapping = 0x1A03;

// Sub-indices of a PDO communication record; of a mapping record, 0 holds the number of objects.
constexpr std::uint8_t kPdoCobId = 1;
constexpr std::uint8_t kPdoTransmissionType = 2;
constexpr std::uint8_t kPdoInhibitTime = 3;
constexpr std::uint8_t kPdoEventTimer = 5;

}  // namespace cia301

namespace cia402 {

constexpr std::uint16_t kErrorCode = 0x603F;
constexpr std::uint16_t kControlword = 0x6040;
constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint16_t kModesOfOperation = 0x6060;
constexpr std::uint16_t kProfileAcceleration = 0x6083;
constexpr std::uint16_t kProfileDeceleration = 0x6084;

// Controlword commands.
constexpr std::uint16_t kShutdown = 0x0006;
constexpr std::uint16_t kSwitchOn = 0x0007;
constexpr std::uint16_t kEnableOperation = 0x000F;
constexpr std::uint16_t kFaultReset = 0x0080;

constexpr std::uint8_t kProfileVelocityMode = 3;

}  // namespace cia402
