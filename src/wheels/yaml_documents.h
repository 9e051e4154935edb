// What readers of YAML files have in common. No type of the YAML library is needed for it.
#pragma once

#include <string>

namespace motor_driver {

// YAML::Load() reads the first of several documents and leaves the rest; LoadAll() never ends where
// a text goes on with a comma after its document. Throws YAML::Exception.
bool HoldsSeveralDocuments(const std::string& text);

}  // namespace motor_driver
