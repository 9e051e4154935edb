// What an EDS adds to a configuration.
#pragma once

#include "config_file.h"
#include "eds.h"

namespace motorctl {

// Types, kinds of access and names, where the configuration does not know them.
void TakeFromEds(Config& config, const Eds& eds);

// Throws FileError with the line of the first object that the EDS does not allow: another size or
// a value beyond the limits. `config` is of a file.
void CheckAgainstEds(const Config& config, const Eds& eds);

}  // namespace motorctl
