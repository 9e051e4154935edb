// Who records an interface, and how somebody else asks it for a record.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace motorctl {

// One recorder for each interface. It goes with the process, however that ends; a process that was
// forked has to close it.
class RecordControl {
 public:
  // Throws CommandFailed where another one records.
  explicit RecordControl(const std::string& interface);
  ~RecordControl() { Close(); }
  RecordControl(const RecordControl&) = delete;
  RecordControl& operator=(const RecordControl&) = delete;

  void Close();

  // Becomes readable when somebody asks.
  int descriptor() const { return socket_; }

  // Whether somebody has asked since the last call.
  bool Asked();
  // Those who have asked until now wait for the next Answer.
  void Promise() { promised_ = asking_.size(); }
  void Answer(const std::string& text);

 private:
  int socket_ = -1;
  std::vector<int> asking_;
  std::size_t promised_ = 0;
};

// Asks the recorder of an interface for a record, and waits until it is written. Its first
// character tells whether it was. Throws CommandFailed where nobody records.
std::string AskForRecord(const std::string& interface);

}  // namespace motorctl
