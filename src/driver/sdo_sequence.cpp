#include "sdo_sequence.h"

#include <cstdio>

std::uint16_t RunSdoSequence(DriverCommon& drive, std::uint8_t node, const SdoStep* steps,
                             std::size_t count, FailureText print) {
  std::uint16_t failures = 0;
  for (const SdoStep* step = steps; step != steps + count; ++step) {
    if (!drive.SdoWriteWithFeedback(cia301::kSdoRequest + node, step->command, step->index,
                                    step->sub_index, step->value)) {
      ++failures;
      if (print == FailureText::kLine) {
        std::puts(step->failure_text);
      } else {
        std::fputs(step->failure_text, stdout);
      }
    }
  }
  return failures;
}
