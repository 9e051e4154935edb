// Simulated drives on the other end of the bus, in a process of their own so that their work is not
// measured.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

class DrivesProcess {
 public:
  // Nodes 1 to `count`, switched on. Throws std::runtime_error when they cannot be had.
  DrivesProcess(const std::string& make, std::uint32_t count, const std::string& interface);
  ~DrivesProcess();
  DrivesProcess(const DrivesProcess&) = delete;
  DrivesProcess& operator=(const DrivesProcess&) = delete;

 private:
  int control_ = -1;
  pid_t process_ = -1;
};

// What that process does, until its standard input, a socket, ends; the exit status.
int HoldDrives(const std::string& make, std::uint32_t count, const std::string& interface);
