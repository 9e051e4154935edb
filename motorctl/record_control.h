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
  // Throws CommandFailed where another recorder of root or of the same user records.
  explicit RecordControl(const std::string& interface);
  ~RecordControl() { Close(); }
  RecordControl(const RecordControl&) = delete;
  RecordControl& operator=(const RecordControl&) = delete;

  void Close();

  // Who it is that has the address, where it is neither root nor the same user: nobody must keep
  // others from recording, but they cannot be asked then. Empty otherwise.
  const std::string& holder() const { return holder_; }

  // Becomes readable when somebody asks.
  int descriptor() const { return socket_; }

  // Whether somebody has asked since the last call: root, or the user of the recorder.
  bool Asked();
  // Those who have asked until now wait for the next Answer.
  void Promise() { promised_ = asking_.size(); }
  void Answer(const std::string& text);

 private:
  int socket_ = -1;
  std::string holder_;
  std::vector<int> asking_;
  std::size_t promised_ = 0;
};

// The most that may follow a trigger.
inline constexpr int kMostAfterSeconds = 600;

struct RecordAnswer {
  bool written = false;
  std::string text;      // safe to show: the path of the folder, or what went wrong
  std::string answerer;  // "process 12 of user 1000"; empty when it is the user who asks
};

// Asks the recorder of an interface for a record, and waits until it is written. Throws
// CommandFailed where nobody records who may be asked.
RecordAnswer AskForRecord(const std::string& interface);

}  // namespace motorctl
