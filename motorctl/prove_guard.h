// Shows on the vehicle that a guard stops a wheel whose host was killed.
#pragma once

#include "context.h"

namespace motorctl {

struct Proof {
  int node = 1;
  int rpm = 20;
  bool yes = false;  // do not ask
};

// The exit status.
int ProveGuard(const Context& context, const Proof& proof);

}  // namespace motorctl
