#include "fault_test.h"

#include <cstdio>
#include <fstream>
#include <sstream>

std::size_t Received(const std::string& interface) {
  std::ifstream devices("/proc/net/dev");
  for (std::string line; std::getline(devices, line);) {
    std::istringstream words(line);
    std::string name;
    std::size_t bytes = 0;
    std::size_t packets = 0;
    if (words >> name >> bytes >> packets && name == interface + ":") {
      return packets;
    }
  }
  ADD_FAILURE() << "no interface " << interface;
  return 0;
}

std::size_t ThrownAway(const std::string& interface) {
  FILE* report = ::popen(("tc -s qdisc show dev " + interface).c_str(), "r");
  std::string text;
  for (int byte = std::fgetc(report); byte != EOF; byte = std::fgetc(report)) {
    text += static_cast<char>(byte);
  }
  EXPECT_EQ(::pclose(report), 0);
  const std::string label = "(dropped ";
  const std::size_t at = text.find(label);
  if (at == std::string::npos) {
    ADD_FAILURE() << text;
    return 0;
  }
  return std::stoul(text.substr(at + label.size()));
}
