#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "sim/can_socket.h"
#include "sim/faults.h"
#include "sim/node.h"

namespace sim {

/// A drive on a CAN interface, with a thread of its own that blocks every signal and, where the
/// process may ask for it, has real-time priority 1.
///
/// The constructor powers it on, the destructor unplugs it within a few milliseconds. Every
/// operation may be called from any thread; all of them first bring the simulation up to the
/// present. Axes are counted from 1, as sub-indices are; a wrong axis or an absent object throws
/// std::out_of_range.
///
///   sim::SimulatedDrive::Options options;
///   options.interface = "can1";
///   sim::SimulatedDrive drive(options);
class SimulatedDrive {
 public:
  struct Options {
    std::string interface = "can1";
    std::string make = "zl";
    std::uint8_t node_id = 1;
    std::uint16_t heartbeat_ms = 0;  // 0 = no heartbeats until a host asks for them
    std::array<std::int32_t, Node::kMaxAxes> start_positions{};  // counts, of each axis in turn
    std::vector<Fault> faults;
    bool powered = true;                     // false: silent until PowerOn
    std::int32_t counts_per_revolution = 0;  // 0 = the make's
    std::uint16_t tpdo1_id = 0;              // identifier at power-on; 0 = 0x180 + node-ID
    bool inactive = false;                   // silent until activated (makes that know it)
  };

  /// Throws std::invalid_argument on an unknown make or options that Node refuses,
  /// std::system_error without the interface.
  explicit SimulatedDrive(const Options& options);
  ~SimulatedDrive();
  SimulatedDrive(const SimulatedDrive&) = delete;
  SimulatedDrive& operator=(const SimulatedDrive&) = delete;

  double SpeedRpm(std::size_t axis = 1);
  std::int32_t Position(std::size_t axis = 1);
  std::uint16_t Statusword(std::size_t axis = 1);
  NmtState State();
  ReceivedFrames Received();

  std::uint32_t ReadObject(std::uint16_t index, std::uint8_t sub);
  /// Of an object that is a string.
  std::string ReadText(std::uint16_t index, std::uint8_t sub);
  /// As the device itself would: read-only objects can be written, a refused value is returned as
  /// such.
  AbortCode WriteObject(std::uint16_t index, std::uint8_t sub, std::uint32_t value);

  void Inject(const Fault& fault);
  /// The text form of ParseFault, for instance "abort-write=3".
  void Inject(std::string_view fault) { Inject(ParseFault(fault)); }
  void ClearFaults();
  void LatchError(std::uint16_t error_code, std::size_t axis = 1);
  void PowerCut();
  void PowerOn();
  void PressEmergencyStop();
  void ReleaseEmergencyStop();

  /// Why the drive has left the bus by itself (its interface disappeared); empty while it works.
  std::string Failure();

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void Wake();
  void CatchUp();   // the mutex is held
  void Transmit();  // the mutex is held
  void Listen();    // the mutex is held
  Clock::time_point NextWakeUp();

  // Runs the operation on the node at the present time.
  template <typename Operation>
  auto OnNode(Operation operation);
  template <typename Operation>
  void Change(Operation operation);

  const Clock::time_point start_ = Clock::now();
  CanSocket socket_;
  FileDescriptor wake_;
  std::mutex mutex_;
  std::deque<Frame> to_send_;
  std::vector<std::uint32_t> heard_;
  Node node_;
  bool stop_ = false;
  std::string failure_;
  std::thread thread_;
};

}  // namespace sim
