// The program as a user meets it: started by a shell, with its exit status and its two outputs.
#pragma once

#include <string>

#include "processes.h"

/// $SIM is the program.
inline support::ProcessResult Shell(const std::string& script) {
  return support::RunProgram({"/bin/sh", "-c", script},
                             {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"SIM", MOTOR_DRIVE_SIM}});
}
