#include "eds_section.h"

#include <algorithm>

namespace motorctl {
namespace {

constexpr const char* kNodeId = "$nodeid";
constexpr int kHighestNodeId = 127;

bool IsEntry(const IniKey& key) {
  return !key.name.empty() && key.name.find_first_not_of("0123456789") == std::string::npos;
}

// "$NODEID + 0x180" and "0x180+$NODEID" without $NODEID; nothing where it is not in it.
std::optional<std::string> WithoutNodeId(const std::string& text) {
  std::string sum = LowerCase(text);
  sum.erase(std::remove(sum.begin(), sum.end(), ' '), sum.end());
  const std::size_t at = sum.find(kNodeId);
  if (at == std::string::npos) return std::nullopt;
  sum.erase(at, std::string(kNodeId).size());
  if (sum.empty()) return "0";
  // What joined the two is at the end of what is left, or at its beginning.
  const bool before = at == 0;
  const std::size_t plus = before ? 0 : sum.size() - 1;
  if (sum[plus] != '+') return text;
  sum.erase(plus, 1);
  return sum;
}

}  // namespace

std::size_t EntryNumber(const IniKey& key) {
  constexpr std::size_t kDigits = 9;
  return key.name.size() > kDigits ? 0 : std::stoul(key.name);
}

void EdsSection::Fail(const std::string& text) const {
  throw FileError(file_.name + ":" + std::to_string(section_.line) + ": [" + section_.name + "] " +
                  text);
}

void EdsSection::Fail(const IniKey& key, const std::string& text) const {
  throw FileError(file_.name + ":" + std::to_string(key.line) + ": [" + section_.name + "] " +
                  key.name + ": " + text);
}

const IniKey* EdsSection::Find(const std::string& key) const {
  const IniKey* const found = section_.Find(key);
  return found == nullptr || found->value.empty() ? nullptr : found;
}

const IniKey& EdsSection::Require(const std::string& key) const {
  const IniKey* const found = Find(key);
  if (found == nullptr) Fail(key + ": missing");
  return *found;
}

std::string EdsSection::Text(const std::string& key) const {
  const IniKey* const found = Find(key);
  return found == nullptr ? "" : found->value;
}

std::optional<std::uint32_t> EdsSection::Number(const std::string& key, DataType type) const {
  const IniKey* const found = Find(key);
  if (found == nullptr) return std::nullopt;
  const EdsValue value = ParseValueOf(*found, type);
  if (value.adds_node_id) Fail(*found, "not for $NODEID");
  return static_cast<std::uint32_t>(IntegerOf(type, value.bytes));
}

std::uint32_t EdsSection::RequireNumber(const std::string& key, DataType type) const {
  Require(key);
  return *Number(key, type);
}

std::optional<EdsValue> EdsSection::Value(const std::string& key, DataType type) const {
  const IniKey* const found = Find(key);
  if (found == nullptr) return std::nullopt;
  return ParseValueOf(*found, type);
}

EdsValue EdsSection::ParseValueOf(const IniKey& key, DataType type) const {
  const auto addend = IsInteger(type) ? WithoutNodeId(key.value) : std::nullopt;
  EdsValue value;
  try {
    value.bytes = ParseValue(type, addend.value_or(key.value), Octal::kLeadingZero);
  } catch (const ValueError& error) {
    Fail(key, error.what());
  }
  value.adds_node_id = addend.has_value();
  const bool fits = CompareValues(type, value.Of(kHighestNodeId), value.bytes) >= 0;
  if (value.adds_node_id && !fits) {
    Fail(key, key.value + " is too large for " + TypeName(type) + " with node-ID 127");
  }
  return value;
}

std::vector<const IniKey*> EdsSection::Entries(const std::string& count,
                                               std::size_t highest) const {
  const std::uint32_t expected = RequireNumber(count, DataType::kUnsigned16);
  std::vector<const IniKey*> entries;
  for (const auto& [name, key] : section_.keys) {
    if (!IsEntry(key)) continue;
    entries.push_back(&key);
    if (EntryNumber(key) < 1 || EntryNumber(key) > highest) {
      Fail(key, "is not a number of 1 to " + std::to_string(highest));
    }
  }
  if (entries.size() != expected) {
    Fail(*Find(count), std::to_string(expected) + ", but there are " +
                           std::to_string(entries.size()) + " entries");
  }
  std::sort(entries.begin(), entries.end(),
            [](const IniKey* left, const IniKey* right) { return left->line < right->line; });
  return entries;
}

}  // namespace motorctl
