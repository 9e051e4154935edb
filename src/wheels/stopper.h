// Stops the wheels of a vehicle whose host is gone: zero speed, again and again, until every motor
// was measured to stand still. Enables nothing, resets nothing, and needs no set-up of the nodes.
#pragma once

#include <vehicle.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace motor_driver {

// What is known of one node at the end of a stop.
struct StoppedNode {
  int node = 0;
  bool zero_confirmed = false;  // the drive took zero target velocity
  bool standing = false;        // its positions were measured not to change
  std::string reason;           // why not, in words; empty when both hold
};

class MOTOR_DRIVER_WHEELS_EXPORT Stopper {
 public:
  // Throws VehicleError when the vehicle makes no sense. Opens the bus, so that nothing has to be
  // opened when it matters, and hears nothing until then.
  explicit Stopper(const Vehicle& vehicle);
  ~Stopper();
  Stopper(const Stopper&) = delete;
  Stopper& operator=(const Stopper&) = delete;

  // Empty when the bus works, otherwise a sentence. A bus that fails is opened again by Stop().
  std::string BusTrouble() const;

  // Zero to every node: by RPDO and by SDO without waiting at first, confirmed afterwards; then
  // positions are read (0x6063 or 0x6064, SDO) until each node stood for 200 ms at less than 1 rpm
  // of the motor. True: all of them. At most `limit` and one round of questions: 0.3 s for each
  // node that does not answer. `cancelled` is asked between the nodes.
  bool Stop(std::chrono::milliseconds limit = std::chrono::seconds(5),
            const std::function<bool()>& cancelled = {});

  // After Stop().
  const std::vector<StoppedNode>& nodes() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace motor_driver
