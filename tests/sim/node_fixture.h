#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "sim/node.h"
#include "tests/sim/candump_text.h"

namespace sim {

using Texts = std::vector<std::string>;

/// A node without a bus: frames in and out as text, time by hand.
class NodeFixture : public testing::Test {
 protected:
  explicit NodeFixture(const Make& make, const Node::Options& options = {})
      : node_(make, options, [this](const Frame& frame) { sent_.push_back(ToText(frame)); }) {}

  Texts Sent() { return std::exchange(sent_, {}); }
  // What the node sends at once in answer to the frame.
  Texts After(const std::string& frame) {
    Sent();
    node_.Receive(FromText(frame));
    return Sent();
  }
  Texts Advance(int milliseconds) {
    Sent();
    for (int i = 0; i < 2 * milliseconds; ++i) node_.Step();
    return Sent();
  }
  // Every write to node 1 must be acknowledged.
  void WriteAll(const Texts& requests) {
    for (const std::string& request : requests) {
      const Texts expected{"581#60" + request.substr(6, 6) + "00000000"};
      EXPECT_EQ(After(request), expected) << request;
    }
  }

  Texts sent_;
  Node node_;
};

}  // namespace sim
