// Text files of Vector's tools (.asc).
#pragma once

#include <optional>
#include <string_view>

#include "candump/logged_frame.h"

namespace candump {

// "0.029472", with which a line of an .asc file begins.
bool IsAscTime(std::string_view word);

// A line of an .asc file, with numbers of this base.
std::optional<LoggedFrame> ParseAscLine(std::string_view line, int base);

}  // namespace candump
