// The way from nodes that have power to nodes that are enabled and observed to stand.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver/sdo_observer.h"
#include "wheels/drives.h"
#include "wheels/set_up_failure.h"

namespace motor_driver {

// What goes on around a bring-up.
class Surroundings {
 public:
  virtual ~Surroundings() = default;

  // Before a step; false when there shall be no further one.
  virtual bool Begin(const std::string& step) = 0;
  virtual bool Cancelled() = 0;
  // Zeros flow meanwhile to what is set up already.
  virtual void Wait(std::chrono::milliseconds time) = 0;
  // A transfer is over: zeros may be due.
  virtual void Transferred() = 0;
};

class BringUp final : private SdoObserver {
 public:
  // `enabled` becomes true before anything is sent that can enable a drive.
  BringUp(Drives& drives, Surroundings& surroundings, bool& enabled);
  ~BringUp() override;
  BringUp(const BringUp&) = delete;
  BringUp& operator=(const BringUp&) = delete;

  // Brings these nodes (by their number) up, with zero confirmed in every node of the vehicle
  // before anything is enabled, and waits until all of the vehicle are ready.
  Trouble Run(const std::vector<bool>& concerned);

  // Only the last: every node ready, that is operational, enabled, without error, reporting and
  // standing.
  Trouble AwaitReady();

  // The node no longer watches this host.
  void EndWatchdog(std::size_t node);

  // Whether the node is enabled and without error, by its own objects; `trouble` if not.
  Trouble LookAtDrive(std::size_t node);

  const std::vector<SetUpFailure>& failures() const { return failures_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Outcome = SdoTransfer::Outcome;

  void Finished(const SdoTransfer& transfer) override;

  Trouble Wake(std::size_t node);
  Trouble Reset(std::size_t node);
  Trouble ConfirmZero(std::size_t node);
  Trouble Activate(std::size_t node);
  Trouble SetUp(std::size_t node);
  Trouble SetTimes(std::size_t node);
  Trouble SetWatchdog(std::size_t node);
  bool WriteAndReadBack(std::size_t node, std::uint8_t command, const Object& object,
                        std::uint32_t value);
  Trouble AwaitSupervision();
  Trouble AwaitMotionless();
  Trouble StatusTrouble(std::size_t node, std::optional<std::uint32_t> statusword,
                        std::uint32_t error) const;
  Trouble NotReady(std::size_t node, std::uint32_t reports, Clock::time_point since) const;

  // One confirmed transfer; what became of it is in last_.
  bool Write(std::size_t node, std::uint8_t command, const Object& object, std::uint32_t value);
  bool Read(std::size_t node, const Object& object, std::uint32_t& value);
  bool Answers(std::size_t node);
  Trouble Refused(std::size_t node, const std::string& what) const;
  Trouble NothingSent() const;
  // Unless nothing went out to it.
  Trouble Silent(std::size_t node) const;
  Trouble Interrupted() const;
  std::uint32_t SdoId(std::size_t node) const;
  std::uint16_t PeriodMs() const;
  std::size_t NodeCount() const { return drives_.nodes().size(); }
  std::uint8_t Id(std::size_t node) const { return drives_.nodes()[node].id; }
  std::string Name(std::size_t node) const { return drives_.nodes()[node].name(); }

  Drives& drives_;
  Surroundings& surroundings_;
  SdoObserver* previous_observer_;
  SdoTransfer last_;
  std::vector<SetUpFailure> failures_;
  bool& enabled_;
  std::vector<std::uint32_t> boot_ups_;         // of each node before its reset
  std::vector<std::uint32_t> zeroed_boot_ups_;  // of each node before its zero
  std::vector<bool> reset_;
};

}  // namespace motor_driver
