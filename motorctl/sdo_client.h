// SDO transfers whose outcome can be told in words.
#pragma once

#include <driver_common.h>

#include <cstdint>
#include <memory>
#include <string>

#include "context.h"
#include "wheels/set_up_failure.h"

namespace motorctl {

struct SdoAnswer {
  enum class Kind { kOk, kAborted, kNoAnswer, kNotSent, kTooLong };
  Kind kind = Kind::kNoAnswer;
  std::uint32_t value = 0;  // abort code, where aborted; length in bytes, where too long
  unsigned size = 0;        // bytes of the value; 0 where the drive does not tell
  bool ok() const { return kind == Kind::kOk; }
};

// At most 100 ms for each attempt; only silence leads to another one.
constexpr int kAttempts = 3;
SdoAnswer ReadObject(DriverCommon& drive, int node, std::uint16_t index, std::uint8_t sub_index,
                     int attempts = kAttempts);
// `size`: 1, 2 or 4.
SdoAnswer WriteObject(DriverCommon& drive, int node, std::uint16_t index, std::uint8_t sub_index,
                      std::uint32_t value, unsigned size, int attempts = 1);

// Why there is no value; empty when there is one.
std::string Explanation(const SdoAnswer& answer);

// A drive object for what all makes have in common. Throws CommandFailed when the interface cannot
// be used.
std::unique_ptr<DriverCommon> OpenBus(const Context& context);
void CheckBus(const DriverCommon& drive, const Context& context);

// "node 1: failed: 0x6040 sub 0 (Controlword): no answer"
std::string Describe(const motor_driver::SetUpFailure& failed);
// "0x6040 sub 0 (Controlword): no answer"
std::string Reason(const motor_driver::SetUpFailure& failed);

// "0x60FF sub 1 (Target velocity)"
std::string NameObject(std::uint16_t index, std::uint8_t sub_index);

}  // namespace motorctl
