// What stands in one section of an EDS file.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "eds.h"

namespace motorctl {

// Its number, of a key that is one.
std::size_t EntryNumber(const IniKey& key);

// Every operation throws FileError, with line, section and key, on what cannot be.
class EdsSection {
 public:
  EdsSection(const IniFile& file, const IniSection& section) : file_(file), section_(section) {}

  const IniSection& ini() const { return section_; }

  // nullptr where the key is missing or has no value.
  const IniKey* Find(const std::string& key) const;
  const IniKey& Require(const std::string& key) const;

  // Empty where the key is missing or has no value.
  std::string Text(const std::string& key) const;
  std::optional<std::uint32_t> Number(const std::string& key, DataType type) const;
  std::uint32_t RequireNumber(const std::string& key, DataType type) const;
  std::optional<EdsValue> Value(const std::string& key, DataType type) const;
  EdsValue ParseValueOf(const IniKey& key, DataType type) const;

  // The keys that are numbers of 1 to `highest`; the key `count` tells how many there are.
  std::vector<const IniKey*> Entries(const std::string& count, std::size_t highest) const;

  [[noreturn]] void Fail(const std::string& text) const;
  [[noreturn]] void Fail(const IniKey& key, const std::string& text) const;

 private:
  const IniFile& file_;
  const IniSection& section_;
};

}  // namespace motorctl
