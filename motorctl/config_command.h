// The parts of `motorctl config`.
#pragma once

#include "context.h"

namespace motorctl {

void AddConfigDiff(CLI::App& config, Context& context);
void AddConfigRestore(CLI::App& config, Context& context);

}  // namespace motorctl
