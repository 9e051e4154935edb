// Lines of text that hold CAN frames, as candump and cansend write and read them, and the text
// files of Vector's tools (.asc).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "candump/logged_frame.h"

namespace candump {

// A line of `candump -L` ("(1690000000.123456) can0 601#2B4060000F000000"), of candump without -L
// ("can0  601   [8]  2B 40 60 00 0F 00 00 00", with any of its options but -c), of an .asc file
// ("0.029472 1  601  Rx   d 8 2B 40 60 00 0F 00 00 00", with numbers of that base) or a frame alone
// ("601#2B4060000F000000"). Empty when it is not one of them.
std::optional<LoggedFrame> ParseLogLine(std::string_view line, int asc_base = 16);

// "601#2B4060000F000000".
std::string FrameText(const LoggedFrame& frame);
void AppendFrame(const LoggedFrame& frame, std::string& text);

}  // namespace candump
