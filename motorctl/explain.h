// Numbers and frames, as a drive or a log shows them, in words.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "decode.h"

namespace motorctl {

// Every reading of a code that makes sense. A code is one of
//   0x3210, 12816, 3210, FF00      error code or statusword (16 bits), SDO abort code (32 bits);
//                                  digits without 0x may be decimal or hexadecimal
//   1032010000000000               payload of an emergency message or an SDO transfer
//   581#8040600000000206           a frame, alone or in a line of candump
// No value: the text is not a code. Empty: nothing is known about it.
std::optional<std::vector<Meaning>> Explain(const std::string& code, const Make* make);

}  // namespace motorctl
