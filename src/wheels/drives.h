// The drives of a vehicle behind one drive object: what is sent to them, and the bus between.
#pragma once

#include <wheels.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wheels/bus_watch.h"
#include "wheels/makes.h"
#include "wheels/nodes.h"

namespace motor_driver {

// The node-ID under which this host sends its own heartbeat.
constexpr std::uint8_t kHostNode = 127;

// Why a vehicle cannot go on.
struct Trouble {
  Fault fault = Fault::kNone;
  int node = 0;
  std::string reason;

  explicit operator bool() const { return fault != Fault::kNone; }
};

// Used by the control thread alone.
class Drives {
 public:
  using Clock = std::chrono::steady_clock;

  // `vehicle` outlives the object.
  explicit Drives(const Vehicle& vehicle);
  ~Drives();
  Drives(const Drives&) = delete;
  Drives& operator=(const Drives&) = delete;

  // Makes the drive object: opens the bus and begins to listen.
  Trouble Open();
  // Ends what Open() began. What was heard stays.
  void Close();
  // Starts the supervision loop of a make that has one, once.
  void Supervise();

  const Vehicle& vehicle() const { return vehicle_; }
  const Make& make() const { return make_; }
  const std::vector<Node>& nodes() const { return nodes_; }
  DriverCommon& drive() { return *drive_; }
  const DriverCommon& drive() const { return *drive_; }
  BusWatch& watch() { return watch_; }
  const BusWatch& watch() const { return watch_; }

  // While it is woken, a node is heard by the drive class itself, its boot-up message included.
  void SetWaking(bool waking) { waking_ = waking; }

  // From now on the node takes speeds: it was set up.
  void TakesCommands(std::size_t node, bool takes) { commanded_[node].takes_commands = takes; }
  bool TakesCommands(std::size_t node) const { return commanded_[node].takes_commands; }
  bool AnyTakesCommands() const;

  // Speeds of every node that takes them, in rpm of the motors; zeros besides by SDO, not
  // confirmed, to those that do not hear PDOs now or do not heed them.
  void Send(const std::vector<MotorRpm>& rpm);
  void SendZeros();
  // Zeros to the nodes that take speeds, and nothing else: for the time of a bring-up.
  void SendZerosMeanwhile();

  // Whether the drives hear this host's heartbeat. It goes out with what is sent, when it is due.
  void SendsHeartbeat(bool sends) { sends_heartbeat_ = sends; }

  // The node does not hear PDOs, as far as is known.
  void SetDeaf(std::size_t node, bool deaf) { commanded_[node].deaf = deaf; }

  // Speeds by PDO do not stop the node, as far as is seen.
  void SetUnheeding(std::size_t node, bool unheeding) { commanded_[node].unheeding = unheeding; }

  // A node that another master stopped serves nothing: made pre-operational, it serves SDOs again.
  void LeaveStopped(std::size_t node);

  // Whether everything sent last has gone out.
  bool Sent() const;

  // A sentence when the bus has failed.
  Trouble BusTrouble() const;
  bool BusFailed() const { return !make_.simulated && drive_->GetCanError() != 0; }
  // Whether the interface is there and up, as far as can be known.
  bool InterfaceUp() const;
  // One attempt to bring the bus back; true when it works again.
  bool Recover();

 private:
  struct Commanded {
    bool takes_commands = false;
    bool deaf = false;
    bool unheeding = false;
    Clock::time_point zeroed;  // by SDO, last
  };

  void ZeroByObject(std::size_t node);
  void SendHeartbeat();

  const Vehicle& vehicle_;
  const Make& make_;
  const std::vector<Node> nodes_;
  std::vector<Commanded> commanded_;
  std::vector<MotorRpm> zeros_;
  Clock::time_point next_recovery_;
  std::atomic<bool> waking_{false};
  bool supervised_ = false;
  bool sends_heartbeat_ = false;
  Clock::time_point next_heartbeat_;
  BusWatch watch_;
  // Last, so that it goes first: its receive thread uses what stands above.
  std::unique_ptr<DriverCommon> drive_;
};

}  // namespace motor_driver
