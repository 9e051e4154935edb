// One program of a kind for each node: two guards would stop each other's wheels, two engineers
// would mix their configurations, and a wheel must not be turned while its drive is restored.
#pragma once

#include <string>
#include <vector>

namespace motorctl {

// Held by a socket with a name in no file system, so that it ends with the process whatever ends
// it, and lives in the network namespace as the interface does.
class NodeLock {
 public:
  // Throws CommandFailed, naming the process that holds the lock of this name of a node: "node 1 on
  // can0 " and `taken`.
  NodeLock(const std::string& interface, const std::vector<int>& nodes, const std::string& name,
           const std::string& taken);
  ~NodeLock();
  NodeLock(const NodeLock&) = delete;
  NodeLock& operator=(const NodeLock&) = delete;

  // Readable when somebody asked who holds them; Answer() lets them know and makes room for others.
  const std::vector<int>& descriptors() const { return sockets_; }
  void Answer();

 private:
  void Close();

  std::vector<int> sockets_;
};

// That of the commands which keep, change or turn what is in a drive. `stop` never asks for it: it
// has to work whatever else goes on.
class UseLock : public NodeLock {
 public:
  UseLock(const std::string& interface, const std::vector<int>& nodes);
};

}  // namespace motorctl
