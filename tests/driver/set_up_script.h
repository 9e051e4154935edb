// What a drive's set-up must send, written down from the drive's manual: never read from the
// library's own tables.
#pragma once

#include <cstddef>
#include <cstdint>
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

// The set-up of another node, or with another period: what differs from that of node 1 with 10 ms.
struct SetUpVariant {
  std::uint8_t node;
  std::uint16_t period_ms;
  std::string request;               // identifier
  std::vector<std::string> frames;   // the steps that vary, after the request identifier
  std::vector<std::string> printed;  // their texts; none: all as those of node 1
};

// `varying`: the positions of the steps that vary, counted from 0.
inline std::vector<SetUpStep> Varied(std::vector<SetUpStep> script,
                                     const std::vector<std::size_t>& varying,
                                     const SetUpVariant& variant) {
  for (std::size_t i = 0; i < varying.size(); ++i) {
    script.at(varying[i]).frame = variant.frames.at(i);
    if (!variant.printed.empty()) {
      script[varying[i]].printed = variant.printed.at(i);
    }
  }
  for (SetUpStep& step : script) {
    step.frame = variant.request + step.frame.substr(step.frame.find('#'));
  }
  return script;
}
