// Device configuration files of CiA 306: an EDS with the values of one drive.
#pragma once

#include <string>

#include "config_file.h"
#include "eds.h"

namespace motorctl {

// The text of the EDS with the values of the configuration as ParameterValue, and with the node.
// What changes by itself is marked as not to be written, by ObjFlags; in a section of compact
// sub-indices, which has no place for that, it has no value. Throws FileError.
std::string WriteDcf(const Eds& eds, const Config& config);

// A file of either kind: a DCF begins with a section or a comment.
Config LoadConfigOrDcf(const std::string& file);

}  // namespace motorctl
