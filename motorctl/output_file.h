// A file that is there whole, or not at all.
#pragma once

#include <string>

namespace motorctl {

// Written under another name in the same directory, and renamed when it is on the disk. Throws
// CommandFailed; then nothing is left behind, and an older file of the name stays as it was.
void WriteWholeFile(const std::string& file, const std::string& text);

}  // namespace motorctl
