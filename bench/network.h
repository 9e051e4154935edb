#pragma once

#include <string>
#include <vector>

// Moves the process to a network namespace of its own with a connected pair of CAN interfaces.
// Needs the right to do so (root). Throws std::system_error or std::runtime_error.
void EnterOwnNetwork(const std::string& interface, const std::string& far_interface);

// Takes an interface of the process's network up, or down. Throws as above.
void SetInterface(const std::string& interface, bool up);

// Runs a program, found in PATH, and waits for its end. Throws as above when it fails.
void RunCommand(std::vector<std::string> words);
