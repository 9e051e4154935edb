// A process that holds one open drive and does nothing, measured from inside.
#pragma once

#include <string>

struct IdleCost {
  double cpu_us_per_second;  // user and system
  double resident_kb;        // whole process
  double added_kb;           // by opening
  double threads;
  double descriptors;
};

enum class IdleHolder { kLibrary, kBare };

// Starts this program anew for `seconds`; throws std::runtime_error.
IdleCost MeasureIdle(IdleHolder holder, const std::string& interface, double seconds);

// What the program started anew does: holds a drive for `seconds` and prints its cost.
int HoldIdle(IdleHolder holder, const std::string& interface, double seconds);
