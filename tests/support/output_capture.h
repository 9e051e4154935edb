// What the process writes to standard output and standard error, byte for byte.
#pragma once

#include <string>
#include <vector>

namespace support {

// From construction to Stop() (or destruction) descriptors 1 and 2 lead into memory. One at a time.
// If the test has failed by then, the destructor shows what was captured.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  // Everything so far; capturing goes on.
  std::string Out();
  std::string Err();
  // Forgets what was captured so far.
  void Clear();
  // Restores the descriptors and holds none of its own any more; Out() and Err() stay readable.
  void Stop();

 private:
  std::string Read(int stream);

  int saved_[2] = {};
  int memory_[2] = {};
  std::string text_[2];  // what there was at the end
  bool capturing_ = true;
};

// The lines of a text without their line breaks; a last line without break counts too.
std::vector<std::string> Lines(const std::string& text);

// The text with the rolling number cut from each log line: "  7 [INFO] device is can0" becomes
// "[INFO] device is can0". Other lines stay as they are.
std::string WithoutNumbers(const std::string& text);

// The rolling numbers of the log lines of a text, in order.
std::vector<int> LogNumbers(const std::string& text);

// Whether each number follows the one before it: 126, 127, 0, 1. Holds only for lines that one
// thread wrote.
bool AreConsecutive(const std::vector<int>& numbers);

}  // namespace support
