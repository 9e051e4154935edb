// What a restore writes, and in which order.
#pragma once

#include <string>
#include <vector>

#include "config_diff.h"

namespace motorctl {

struct ConfigRules {
  bool bus_settings = false;  // node-ID and bit rate, too
};

// Why a restore never writes the object; empty where it may. `config`: that it stands in.
std::string NeverRestored(const ConfigObject& object, const Config& config,
                          const ConfigRules& rules);

struct ConfigWrite {
  ConfigObject object;    // with the bytes to write
  Bytes before;           // what it holds just before this write
  bool optional = false;  // a refusal is not a failure: nothing uses the value
};

struct ConfigPlan {
  struct Left {
    ConfigDifference difference;
    std::string why;
  };
  std::vector<ConfigDifference> changes;  // left: of the drive; right: of the file
  std::vector<Left> left;                 // differ, and stay as they are
  std::vector<ConfigDifference> missing;  // that the drive does not have
  std::vector<ConfigWrite> writes;        // in order
};

// Both outlive the plan. A PDO in which anything differs is disabled first and enabled last, as
// CiA 301 has it.
ConfigPlan PlanRestore(const Config& drive, const Config& file, const ConfigRules& rules);

// The same for another node-ID: the identifiers of PDOs and emergency messages that contain it.
// Returns the objects that were changed.
std::vector<const ConfigObject*> MoveToNode(Config& config, int node);

}  // namespace motorctl
