// Keeps what the library says from holding up the thread that says it. Standard output may be a
// terminal held by Ctrl-S or a full pipe: while a relay exists, log lines and the fixed texts of
// the set-ups are put aside and written by a thread of the relay. For the libraries of this
// repository; not installed.
#pragma once

#include "base/export.h"

namespace motor_driver {

// While one exists, everything said through the logger and through Print() goes its way, from all
// threads of the process. Several may exist; the last to go writes what is left, for 100 ms at
// most.
class CORVEL_EXPORT OutputRelay {
 public:
  OutputRelay();
  ~OutputRelay();
  OutputRelay(const OutputRelay&) = delete;
  OutputRelay& operator=(const OutputRelay&) = delete;
};

}  // namespace motor_driver
