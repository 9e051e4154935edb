// Nodes whose answers a test decides one by one: they boot up when they are reset, and send
// heartbeats, position reports and status PDOs as soon as they are started.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "far_end.h"
#include "wire.h"

class ScriptedNodes {
 public:
  struct Options {
    bool asleep = false;                       // until its activation frame
    std::chrono::milliseconds boot_time{0};    // from the reset to the boot-up message
    bool heartbeats_before_the_reset = false;  // and on until the boot-up message
    std::string status = "000037000000";       // kinco: error code, statusword, inputs
    bool reports_status_at_once = false;       // and not only when it is started
  };

  ScriptedNodes(const wire::DriveMake& make, const std::vector<int>& nodes, const Options& options)
      : make_(make), options_(options) {
    for (const int node : nodes) {
      nodes_.push_back({node});
      auto& server = far_end_.AnswerSdo(static_cast<std::uint8_t>(node));
      server.Object(0x6040, 0, 0, 2).Object(0x6041, 0, 0x27, 2).Object(0x603F, 0, 0, 2);
      server.Object(0x1017, 0, 100, 2);
      if (make.targets.size() == 2) {
        server.Object(0x6041, 0, 0x00270027, 4).Object(0x603F, 0, 0, 4);
      }
      if (options.asleep) {
        server.Silence(0);
      }
    }
    thread_ = std::thread([this] { Run(); });
  }
  ~ScriptedNodes() {
    ending_ = true;
    thread_.join();
  }
  ScriptedNodes(const ScriptedNodes&) = delete;
  ScriptedNodes& operator=(const ScriptedNodes&) = delete;

  bus::FarEnd& far_end() { return far_end_; }

 private:
  struct Node {
    int id;
    bool booted = false;
    bool started = false;
    bus::Clock::time_point boots_at = bus::Clock::time_point::max();
  };

  void Run() {
    std::size_t seen = 0;
    for (int cycle = 0; !ending_; ++cycle) {
      const std::vector<std::string> frames = far_end_.Frames();
      for (; seen < frames.size(); ++seen) {
        for (Node& node : nodes_) {
          Hear(node, frames[seen]);
        }
      }
      for (Node& node : nodes_) {
        Speak(node, cycle);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  void Hear(Node& node, const std::string& frame) const {
    const std::string id = wire::Hex(static_cast<unsigned>(node.id), 2);
    if (frame == "000#81" + id || frame == "0" + id + "#1010") {
      node.boots_at = bus::Clock::now() + options_.boot_time;
    }
    node.started = node.started || frame == "000#01" + id;
  }

  void Speak(Node& node, int cycle) {
    const auto id = static_cast<unsigned>(node.id);
    const std::string heartbeat = wire::Heartbeat(node.id);
    if (bus::Clock::now() >= node.boots_at) {
      node.boots_at = bus::Clock::time_point::max();
      far_end_.Send(heartbeat + "#00");
      if (options_.asleep) {
        far_end_.Send(wire::Hex(0x080 + id, 3) + "#0000000000000000");
      }
      node.booted = true;
    } else if (cycle % 5 == 0 &&
               (node.started || (options_.heartbeats_before_the_reset && !node.booted))) {
      far_end_.Send(heartbeat + "#05");
    }
    if (node.started) {
      far_end_.Send(wire::Hex(0x180 + id, 3) + "#0000000000000000");
    }
    if (make_.has_emergency_stop && (node.started || options_.reports_status_at_once)) {
      far_end_.Send(wire::Hex(0x480 + id, 3) + "#" + options_.status);
    }
  }

  const wire::DriveMake make_;
  const Options options_;
  bus::FarEnd far_end_;
  std::vector<Node> nodes_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};
