// Text from outside that is safe to show.
#pragma once

#include <string>
#include <string_view>

namespace motorctl {

// What a terminal would obey, or JSON refuse, as "\x1B".
void AppendPrintable(std::string& out, std::string_view text);
std::string Printable(std::string_view text);

// The same, but UTF-8 stays that tells a terminal nothing: names of files and of wheels.
std::string Visible(std::string_view text);

}  // namespace motorctl
