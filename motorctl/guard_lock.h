// One guard for each node: two would stop each other's wheels.
#pragma once

#include <string>
#include <vector>

namespace motorctl {

// Held by a socket with a name in no file system, so that it ends with the process whatever ends
// it, and lives in the network namespace as the interface does.
class GuardLock {
 public:
  // Throws CommandFailed, naming the process that guards a node already.
  GuardLock(const std::string& interface, const std::vector<int>& nodes);
  ~GuardLock();
  GuardLock(const GuardLock&) = delete;
  GuardLock& operator=(const GuardLock&) = delete;

  // Readable when somebody asked who holds them; Answer() lets them know and makes room for others.
  const std::vector<int>& descriptors() const { return sockets_; }
  void Answer();

 private:
  void Close();

  std::vector<int> sockets_;
};

}  // namespace motorctl
