// A make's way from a drive that is switched on to one that is enabled, at zero speed.
#pragma once

#include <driver_common.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "make.h"

namespace motorctl {

// One write of a set-up that did not succeed.
struct FailedWrite {
  std::uint16_t index = 0;
  std::uint8_t sub_index = 0;
  std::optional<std::uint32_t> abort_code;  // nothing: no answer
};

struct BringUpResult {
  bool done = false;
  // False: the drive was never enabled, so it was told nothing that could turn a wheel.
  bool enabled = false;
  std::string failure;  // why not, in words
  std::vector<FailedWrite> failed_writes;
};

constexpr int kNotHeard = -1;
constexpr int kOperational = 5;

// One node under the hands of motorctl.
class Drive {
 public:
  // Throws CommandFailed when the interface cannot be used.
  Drive(const Context& context, const Make& make, int node, int period_ms);

  // Zero target velocity, confirmed, before anything that enables. Ends early when `interrupted`
  // says so.
  BringUpResult BringUp(const std::function<bool()>& interrupted);

  // Target velocities of zero by confirmed SDO writes; the answer that was not a confirmation, if
  // there was one, goes to `failure`.
  bool ZeroTargetVelocities(std::string& failure);

  const Make& make() const { return make_; }
  std::uint8_t node() const { return node_; }
  int period_ms() const { return period_ms_; }
  std::string Name() const;
  DriverCommon& driver() { return *driver_; }
  // In the last heartbeat; kNotHeard after BringUp() until there is one.
  int nmt_state() const { return nmt_state_; }

 private:
  int SetUp(const std::function<bool()>& interrupted, std::vector<FailedWrite>& failed);
  bool WaitForAnswer(const std::function<bool()>& interrupted, std::string& failure);

  const Context& context_;
  const Make& make_;
  const std::uint8_t node_;
  const int period_ms_;
  std::atomic<int> nmt_state_{kNotHeard};  // written by the receive thread
  // Last, so that it goes first: its receive thread uses the state above.
  std::unique_ptr<DriverCommon> driver_;
};

// "0x6040 sub 0 (Controlword): no answer"
std::string Describe(const FailedWrite& failed);

}  // namespace motorctl
