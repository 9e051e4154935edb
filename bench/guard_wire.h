// The far end of a guarded vehicle's bus; hears what is sent to node 1.
#pragma once

#include <linux/can.h>

#include <chrono>
#include <optional>
#include <string>

class Wire {
 public:
  using Clock = std::chrono::steady_clock;

  // The make tells which frames command a speed. Throws std::runtime_error without can1.
  explicit Wire(const std::string& make);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void Forget() const;
  // Until a target velocity of zero arrives, by RPDO or written to an object; until one that is
  // lower than the one before. Throw std::runtime_error when there is none within 2 s.
  Clock::time_point AwaitZero() const;
  Clock::time_point AwaitFalling() const;
  // When the latest heartbeat of the host arrived, if one did since the last call.
  std::optional<Clock::time_point> TakeHeartbeat() const;

  void Send(const can_frame& frame) const;

 private:
  struct TargetFrames {
    const char* make;
    unsigned index;
    unsigned sub;
    bool by_rpdo;  // in its first four bytes
  };
  static const TargetFrames kTargets[];

  template <typename Wanted>
  Clock::time_point Await(const char* what, Wanted wanted) const;
  std::optional<int> TargetOf(const can_frame& frame) const;

  const TargetFrames* target_ = nullptr;
  int socket_ = -1;
};
