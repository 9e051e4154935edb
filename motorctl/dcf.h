// Device configuration files of CiA 306: an EDS with the values of one drive.
#pragma once

#include <string>

#include "config_file.h"

namespace motorctl {

// The text of the EDS with the values of the configuration as ParameterValue, and with the node.
// Throws FileError.
std::string WriteDcf(const std::string& eds_file, const Config& config);

// A file of either kind: a DCF begins with a section or a comment.
Config LoadConfigOrDcf(const std::string& file);

}  // namespace motorctl
