// What a drive's set-up must send, written down from the drive's manual: never read from the
// library's own tables.
#pragma once

#include <cstdint>
#include <ostream>
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

// The same requests to another node.
inline std::vector<std::string> ToNode(const std::string& request_id,
                                       std::vector<std::string> frames) {
  for (std::string& frame : frames) {
    frame = request_id + frame.substr(frame.find('#'));
  }
  return frames;
}

// What is printed when every write is refused.
inline std::string PrintedBy(const std::vector<SetUpStep>& script) {
  std::string text;
  for (const SetUpStep& step : script) {
    text += step.printed;
  }
  return text;
}

// What a case of a set-up test varies; the cases of a make add the frames that follow from it.
struct NodeAndPeriod {
  std::uint8_t node;
  std::uint16_t period_ms;
};

inline std::ostream& operator<<(std::ostream& out, const NodeAndPeriod& varied) {
  return out << "node " << int{varied.node} << ", period " << varied.period_ms << " ms";
}

inline std::string NameOf(const NodeAndPeriod& varied) {
  return "Node" + std::to_string(varied.node) + "Period" + std::to_string(varied.period_ms);
}
