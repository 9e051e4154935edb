// What differs between two configurations.
#pragma once

#include <vector>

#include "config_file.h"

namespace motorctl {

struct ConfigDifference {
  // Of the two configurations; nullptr where only the other one has the object.
  const ConfigObject* left = nullptr;
  const ConfigObject* right = nullptr;

  const ConfigObject& any() const { return left != nullptr ? *left : *right; }
  std::string name() const;
  // Both values, as the type shows them that either of the two knows.
  std::string LeftText() const;
  std::string RightText() const;
};

// By index, then sub-index. Both outlive the result. What changes by itself in one of them is no
// difference, unless `with_volatile`.
std::vector<ConfigDifference> Differences(const Config& left, const Config& right,
                                          bool with_volatile = false);

}  // namespace motorctl
