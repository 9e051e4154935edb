// The PDOs that are on the bus, as a data sheet maps them.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "decode.h"
#include "listener.h"

namespace motorctl {

class SheetPdos {
 public:
  // `only`: of these nodes; empty: of all.
  explicit SheetPdos(std::vector<int> only) : only_(std::move(only)) {}

  void Hear(const HeardFrame& heard);

  // What was heard last of each, by node and name.
  const std::map<std::pair<unsigned, std::string>, Meaning>& heard() const { return heard_; }

 private:
  const std::vector<int> only_;
  std::map<std::pair<unsigned, std::string>, Meaning> heard_;
};

}  // namespace motorctl
