#include "ini_file.h"

#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "printable.h"

namespace motorctl {
namespace {

// Twice what CiA 306 allows, and the line break.
constexpr int kLongestLine = 512;

// As CiA 306 has it: one line for each key, comments on lines of their own. The settings of the
// library are those of the whole process; nobody else uses it.
void ConfigureLibrary() {
  static char comment[] = ";";
  ini_start_comment_prefixes = comment;
  ini_allow_inline_comments = false;
  ini_allow_multiline = false;
  ini_stop_on_first_error = true;
  ini_use_stack = false;
  ini_max_line = kLongestLine;
  ini_initial_alloc = kLongestLine;
}

// What goes through the library, line by line: exceptions must not.
class Reading {
 public:
  Reading(std::FILE* file, IniFile& result) : file_(file), result_(result) {}

  char* Read(char* text, int size) {
    if (!failure_.empty() || std::fgets(text, size, file_) == nullptr) return nullptr;
    ++line_;
    read_ += std::strlen(text);
    if (read_ > kLongestFile) {
      failure_ = kTooLong;
      return nullptr;
    }
    if (std::strchr(text, '\n') == nullptr && std::feof(file_) == 0) {
      Fail(line_, "a line of more than " + std::to_string(kLongestLine - 2) +
                      " characters, or a zero byte");
      return nullptr;
    }
    if (text[std::strspn(text, " \t\xEF\xBB\xBF")] == '[') section_line_ = line_;
    return text;
  }

  bool Take(const std::string& in_section, const std::string& key, const std::string& value) {
    if (section_line_ == 0) return Fail(line_, key + ": stands before the first [SECTION]");
    if (section_ == nullptr || section_->line != section_line_) {
      const auto [at, is_new] = result_.sections.try_emplace(LowerCase(in_section));
      if (!is_new) {
        return Fail(section_line_, "[" + in_section + "] stands in line " +
                                       std::to_string(at->second.line) + ", too");
      }
      section_ = &at->second;
      section_->name = in_section;
      section_->line = section_line_;
    }
    if (const IniKey* const other = section_->Find(key)) {
      return Fail(line_, "[" + section_->name + "] " + key + ": stands in line " +
                             std::to_string(other->line) + ", too");
    }
    section_->keys[LowerCase(key)] = {key, value, line_};
    return true;
  }

  // ":LINE: TEXT", or empty.
  const std::string& failure() const { return failure_; }

 private:
  bool Fail(int where, const std::string& text) {
    failure_ = ":" + std::to_string(where) + ": " + text;
    return false;
  }

  std::FILE* file_;
  IniFile& result_;
  std::size_t read_ = 0;
  int line_ = 0;
  int section_line_ = 0;
  IniSection* section_ = nullptr;
  std::string failure_;
};

char* ReadLine(char* text, int size, void* reading) {
  return static_cast<Reading*>(reading)->Read(text, size);
}

int TakeKey(void* reading, const char* section, const char* key, const char* value) {
  return static_cast<Reading*>(reading)->Take(Printable(section), Printable(key), Printable(value))
             ? 1
             : 0;
}

}  // namespace

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

const IniKey* IniSection::Find(const std::string& key) const {
  const auto found = keys.find(LowerCase(key));
  return found == keys.end() ? nullptr : &found->second;
}

const IniSection* IniFile::Find(const std::string& section) const {
  const auto found = sections.find(LowerCase(section));
  return found == sections.end() ? nullptr : &found->second;
}

IniFile ReadIniFile(std::FILE* file, const std::string& name) {
  ConfigureLibrary();
  IniFile result;
  result.name = name;
  Reading reading(file, result);
  const int bad_line = ini_parse_stream(ReadLine, &reading, TakeKey, &reading);
  if (std::ferror(file) != 0) {
    throw FileError(name + ": " + std::generic_category().message(errno));
  }
  if (!reading.failure().empty()) throw FileError(name + reading.failure());
  if (bad_line != 0) {
    throw FileError(name + ":" + std::to_string(bad_line) + ": neither [SECTION] nor KEY=VALUE");
  }
  return result;
}

}  // namespace motorctl
