// Writes a plan into a drive, or leaves the drive as it was.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "config_device.h"
#include "config_plan.h"

namespace motorctl {

struct ConfigOutcome {
  std::string failure;  // empty: everything was written and read back
  // But for these, which the drive refused and nothing uses.
  std::vector<std::string> refused;
  // And for these, of which nothing but the drive's refusal told that they are read-only.
  std::vector<std::string> read_only;
  // After a failure, of the objects that were written to: "0x1017:00 (...) is 5, was 3".
  std::vector<std::string> not_as_they_were;
};

// Every write is read back. After a failure, or when the device is disturbed, the old values are
// written back in reverse, and read. Nothing is written to a drive that may not be the one that
// `identity` is of. `finish` ends the work, and is told what was left
// out: what it throws undoes everything, too.
ConfigOutcome WritePlan(const std::vector<ConfigWrite>& writes, const ConfigIdentity& identity,
                        ConfigDevice& device,
                        const std::function<void(const ConfigOutcome&)>& finish);

}  // namespace motorctl
