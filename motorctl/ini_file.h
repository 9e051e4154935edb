// Files of [SECTION] and KEY=VALUE, with the lines that things stand in.
#pragma once

#include <cstddef>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>

namespace motorctl {

// "FILE:LINE: TEXT", or "FILE: TEXT" where no line is to blame.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Of any file: what it becomes in memory is many times longer. A drive with 10,000 objects has 1.5
// MB as YAML.
constexpr std::size_t kLongestFile = std::size_t{4} << 20;
constexpr const char* kTooLong = ": longer than 4 MiB";

struct IniKey {
  std::string name;  // as it is written
  std::string value;
  int line = 0;
};

struct IniSection {
  std::string name;  // as it is written
  int line = 0;
  std::map<std::string, IniKey> keys;  // by their names in lower case

  // In any case; nullptr without it.
  const IniKey* Find(const std::string& key) const;
};

struct IniFile {
  std::string name;
  std::map<std::string, IniSection> sections;  // by their names in lower case

  // In any case; nullptr without it.
  const IniSection* Find(const std::string& section) const;
};

// Blanks around names and values are not part of them; a line that begins with ";" is a comment.
// What is not ASCII is written as \xNN. Refuses a section or a key that stands there twice. `name`:
// for messages. Throws FileError.
IniFile ReadIniFile(std::FILE* file, const std::string& name);

std::string LowerCase(std::string text);

}  // namespace motorctl
