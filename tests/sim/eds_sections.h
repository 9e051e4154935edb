// An EDS file as rows of text, for tests: neither the simulator's nor motorctl's idea of it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sim/eds.h"
#include "sim/makes.h"

namespace sim {

struct Section {
  std::string name;
  std::vector<std::pair<std::string, std::string>> keys;

  bool Has(const std::string& key) const {
    for (const auto& [name_of_key, value] : keys) {
      if (name_of_key == key) return true;
    }
    return false;
  }
  std::string operator[](const std::string& key) const {
    for (const auto& [name_of_key, value] : keys) {
      if (name_of_key == key) return value;
    }
    return "missing";
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& [name_of_key, value] : keys) names.push_back(name_of_key);
    return names;
  }
};

// Fails the test on what is neither a section, a key nor an empty line.
inline std::vector<Section> SectionsOf(const std::string& text) {
  std::vector<Section> sections;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const std::size_t equals = line.find('=');
    if (line[0] == '[' && line.back() == ']') {
      sections.push_back({line.substr(1, line.size() - 2), {}});
    } else if (!sections.empty() && equals != std::string::npos) {
      sections.back().keys.emplace_back(line.substr(0, equals), line.substr(equals + 1));
    } else {
      ADD_FAILURE() << "what is this? " << line;
    }
  }
  return sections;
}

inline std::map<std::string, Section> ByName(const std::vector<Section>& sections) {
  std::map<std::string, Section> by_name;
  for (const Section& section : sections) {
    EXPECT_TRUE(by_name.emplace(section.name, section).second) << section.name << " twice";
  }
  return by_name;
}

// One case for each make.
class EveryMakesSheet : public ::testing::TestWithParam<std::string> {
 protected:
  const std::string text_ = DataSheet(FindMake(GetParam()));
  const std::vector<Section> sections_ = SectionsOf(text_);
  std::map<std::string, Section> by_name_ = ByName(sections_);
};

inline std::vector<std::string> NamesOfMakes() {
  std::vector<std::string> names;
  for (const Make* make : AllMakes()) names.emplace_back(make->name);
  return names;
}

inline std::string NameOfMake(const ::testing::TestParamInfo<std::string>& test) {
  return test.param;
}

}  // namespace sim
