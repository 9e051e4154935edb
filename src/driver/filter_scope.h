// Narrowed receive filters, for good or for a scope.
#pragma once

#include <cstdint>

#include "canopen.h"
#include "driver_can.h"

// From now on the socket hears nothing but these identifiers.
template <typename... Ids>
void HearOnly(DriverCan& can, Ids... can_ids) {
  const struct {
    std::uint32_t can_id;
    std::uint32_t mask;
  } filters[] = {{static_cast<std::uint32_t>(can_ids), cia301::kBaseIdMask}...};
  can.CanFiltersConfig(filters, sizeof(filters));
}

// For its lifetime the socket hears nothing but one identifier; afterwards it hears everything,
// whatever filters stood before.
class OnlyHearing {
 public:
  OnlyHearing(DriverCan& can, std::uint32_t can_id) : can_(can) { HearOnly(can_, can_id); }
  ~OnlyHearing() { can_.ClearCanFilterRules(); }
  OnlyHearing(const OnlyHearing&) = delete;
  OnlyHearing& operator=(const OnlyHearing&) = delete;

 private:
  DriverCan& can_;
};
