// The data sheet of the device at hand: what it says of objects comes before what motorctl knows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "eds.h"

namespace motorctl {

// For the whole process, as its command line names one: set before anything asks for a name. The
// sheet must stay; nullptr: none.
void UseDataSheet(const Eds* sheet);
const Eds* DataSheet();

// nullptr without a sheet, and where it has no such object.
const EdsObject* FindInDataSheet(std::uint16_t index, std::uint8_t sub);

// A PDO as the sheet maps it: in a DCF as it was configured, otherwise as after power-on.
struct MappedPdo {
  struct Field {
    std::uint16_t index = 0;
    std::uint8_t sub = 0;
    unsigned offset = 0;
    unsigned bytes = 0;
    std::string name;
    std::string key;  // of JSON
  };
  std::string name;  // "TPDO1"
  EdsValue cob_id;
  std::vector<Field> fields;
};

// The PDO of the node with this identifier; nullptr where the sheet has none.
const MappedPdo* FindMappedPdo(std::uint32_t id, unsigned node);

}  // namespace motorctl
