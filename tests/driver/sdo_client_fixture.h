// What the tests of the SDO client of DriverCommon share.
#pragma once

#include <driver_common.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ios>
#include <ostream>

#include "bus_environment.h"

inline constexpr std::uint8_t kUpload = 0x40;
inline constexpr std::uint8_t kDownload2 = 0x2B;

// The transfer that most cases make: controlword 0x000F to node 1.
inline constexpr auto kRequest = "601#2B4060000F000000";
inline constexpr auto kConfirmed = "581#6040600000000000";
inline constexpr auto kTimeoutLine =
    "[WARN] SDO response timeout, can_id: 0x581, index: 0x6040, sub: 0x00\n";

inline bool WriteControlword(DriverCommon& driver) {
  return driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 0x000F);
}

// What SdoRead hands out.
struct SdoFields {
  bool result;
  std::uint32_t can_id;
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
  std::uint32_t data;
};

inline bool operator==(const SdoFields& a, const SdoFields& b) {
  return a.result == b.result && a.can_id == b.can_id && a.command == b.command &&
         a.index == b.index && a.sub_index == b.sub_index && a.data == b.data;
}

inline std::ostream& operator<<(std::ostream& out, const SdoFields& f) {
  return out << std::boolalpha << f.result << std::hex << " id " << f.can_id << " command "
             << int{f.command} << " index " << f.index << " sub " << int{f.sub_index} << " data "
             << f.data;
}

inline SdoFields Read(DriverCommon& driver) {
  SdoFields f = {true, 9, 9, 9, 9, 9};
  f.result = driver.SdoRead(&f.can_id, &f.command, &f.index, &f.sub_index, &f.data);
  return f;
}

inline constexpr SdoFields kNothingRead = {false, 0, 0, 0, 0, 0};

class SdoClientTest : public bus::BusTest {};
