// Receive filters that last for a scope.
#pragma once

#include <cstdint>

#include "canopen.h"
#include "driver_can.h"

// For its lifetime the socket hears nothing but one identifier; afterwards it hears everything,
// whatever filters stood before.
class OnlyHearing {
 public:
  OnlyHearing(DriverCan& can, std::uint32_t can_id) : can_(can) {
    const std::uint32_t filter[] = {can_id, cia301::kBaseIdMask};
    can_.CanFiltersConfig(filter, sizeof(filter));
  }
  ~OnlyHearing() { can_.ClearCanFilterRules(); }
  OnlyHearing(const OnlyHearing&) = delete;
  OnlyHearing& operator=(const OnlyHearing&) = delete;

 private:
  DriverCan& can_;
};
