#include "sdo_sequence.h"

#include <cstdio>

#include "log/console.h"

std::uint16_t RunSdoSequence(DriverCommon& drive, std::uint8_t node, const SdoStep* steps,
                             std::size_t count, FailureText print) {
  std::uint16_t failures = 0;
  for (const SdoStep* step = steps; step != steps + count; ++step) {
    if (!drive.SdoWriteWithFeedback(cia301::kSdoRequest + node, step->command, step->index,
                                    step->sub_index, step->value)) {
      ++failures;
      if (print == FailureText::kLine) {
        corvel::PrintLine(step->failure_text);
      } else {
        corvel::Print(stdout, step->failure_text);
      }
    }
  }
  return failures;
}
