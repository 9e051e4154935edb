// What a drive's set-up must send, written down from the drive's manual: never read from the
// library's own tables.
#pragma once

#include <string>
#include <vector>

struct SetUpStep {
  std::string frame;    // candump text
  std::string printed;  // on standard output, byte for byte, when the write is not confirmed;
                        // empty: a frame that awaits no confirmation
};

inline std::vector<std::string> FramesOf(const std::vector<SetUpStep>& script) {
  std::vector<std::string> frames;
  for (const SetUpStep& step : script) {
    frames.push_back(step.frame);
  }
  return frames;
}
