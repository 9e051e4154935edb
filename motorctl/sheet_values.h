// Values of an object of a data sheet, as commands take and give them.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "eds.h"
#include "words.h"

namespace motorctl {

// A number where the type has one and JSON can hold it, a text otherwise; bytes that are not of the
// type's size as hexadecimal bytes.
nlohmann::ordered_json ValueJson(DataType type, const Bytes& bytes);

// By the type that the sheet in use tells: where that says more than the number does, and nothing is
// known of its meaning. `known`: how it is shown otherwise. `raw` has `bytes` bytes, 1 to 4.
std::optional<Value> DescribedValue(std::uint16_t index, std::uint8_t sub, std::uint32_t raw,
                                    unsigned bytes, std::optional<Format> known);

// Why the value should not be written to the object: access, size and limits. Empty where nothing is
// against it. `file`: of the sheet, for the text.
std::string AgainstWriting(const EdsObject& object, const Bytes& value, int node_id,
                           const std::string& file);

}  // namespace motorctl
