#include "sim/makes.h"

#include <stdexcept>
#include <string>

#include "sim/amps_drive.h"
#include "sim/hls_drive.h"
#include "sim/kinco_drive.h"
#include "sim/tt_drive.h"
#include "sim/zl_drive.h"

namespace sim {

const std::vector<const Make*>& AllMakes() {
  static const std::vector<const Make*> makes{&ZlDrive(), &TtDrive(), &HlsDrive(), &AmpsDrive(),
                                              &KincoDrive()};
  return makes;
}

const Make& FindMake(std::string_view name) {
  std::string known;
  for (const Make* make : AllMakes()) {
    if (make->name == name) return *make;
    known.append(" ").append(make->name);
  }
  throw std::invalid_argument("unknown make '" + std::string(name) + "'; there are:" + known);
}

}  // namespace sim
