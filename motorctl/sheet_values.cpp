#include "sheet_values.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "data_sheet.h"

namespace motorctl {

nlohmann::ordered_json ValueJson(DataType type, const Bytes& bytes) {
  const std::string text = ValueText(type, bytes);
  if (!IsNumber(type) || bytes.size() != SizeOf(type)) return text;
  if (IsSigned(type)) return IntegerOf(type, bytes);
  if (IsInteger(type)) return static_cast<std::uint64_t>(IntegerOf(type, bytes));
  // A REAL32 as it is shown: as a double it would have digits that it does not have.
  double real = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), real);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  return whole && std::isfinite(real) ? nlohmann::ordered_json(real) : nlohmann::ordered_json(text);
}

std::optional<Value> DescribedValue(std::uint16_t index, std::uint8_t sub, std::uint32_t raw,
                                    unsigned bytes, std::optional<Format> known) {
  const EdsObject* const described = FindInDataSheet(index, sub);
  if (described == nullptr) return std::nullopt;
  const DataType type = described->type;
  const bool has_meaning =
      known && *known != Format::kUnsigned && *known != Format::kSigned && *known != Format::kHex;
  if (has_meaning || (SizeOf(type) != 0 && SizeOf(type) != bytes)) return std::nullopt;
  Bytes value(bytes);
  for (unsigned i = 0; i < bytes; ++i) value[i] = static_cast<std::uint8_t>(raw >> (8 * i));
  if (IsInteger(type)) {
    const std::int64_t number = IntegerOf(type, value);
    // Whether hexadecimal digits suit an unsigned number better is not told.
    if (!IsSigned(type) && (!known || *known == Format::kHex)) return std::nullopt;
    return Value{number, std::to_string(number)};
  }
  const std::string text = ValueText(type, value);
  return Value{raw, type == DataType::kVisibleString ? '"' + text + '"' : text};
}

std::string AgainstWriting(const EdsObject& object, const Bytes& value, int node_id,
                           const std::string& file) {
  const std::string in_file = " in " + file;
  if (!object.writable()) return "read-only (" + object.access + ")" + in_file;
  const unsigned size = SizeOf(object.type);
  if (size != 0 && value.size() != size) {
    return "size " + std::to_string(value.size()) + ", but " + TypeName(object.type) + " of size " +
           std::to_string(size) + in_file;
  }
  const std::string limit = IsNumber(object.type) ? AgainstLimits(object, value, node_id) : "";
  return limit.empty() ? "" : limit + in_file;
}

}  // namespace motorctl
