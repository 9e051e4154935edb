// A drive's set-up as a table of SDO writes, and the one function that runs it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "canopen.h"
#include "driver_common.h"

struct SdoStep {
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
  std::uint32_t value;
  const char* failure_text;  // printed word for word when the write is not confirmed
};

// How a make prints the text of a failed write on standard output.
enum class FailureText {
  kLine,  // as a line (puts)
  kBare,  // without a line break (printf): deliberate, consecutive texts run together
};

// One table row. T is the type of the object, from which the command follows. The value is as wide
// as the frame: where a make sends more bits than the object holds, they go out.
template <typename T>
constexpr SdoStep Write(std::uint16_t index, std::uint8_t sub_index, std::uint32_t value,
                        const char* failure_text) {
  static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4, "expedited writes only");
  constexpr std::uint8_t kCommand = sizeof(T) == 1   ? cia301::kDownload1
                                    : sizeof(T) == 2 ? cia301::kDownload2
                                                     : cia301::kDownload4;
  return {kCommand, index, sub_index, value, failure_text};
}

// Makes every write of the table in order, each confirmed, whether or not the ones before it
// succeeded. Prints the text of each failed one and returns their number.
std::uint16_t RunSdoSequence(DriverCommon& drive, std::uint8_t node, const SdoStep* steps,
                             std::size_t count, FailureText print);

template <std::size_t N>
std::uint16_t RunSdoSequence(DriverCommon& drive, std::uint8_t node,
                             const std::array<SdoStep, N>& steps, FailureText print) {
  return RunSdoSequence(drive, node, steps.data(), N, print);
}
