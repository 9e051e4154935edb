// The speed that a host measures, held against the one that the drive tells.
#pragma once

#include <wheels.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "context.h"
#include "sdo_client.h"

namespace motorctl {

// While it exists, a thread of its own reads the actual velocity of every motor by SDO, where the
// make has such an object, once the speed has settled.
class VelocityCheck {
 public:
  // Both outlive the object.
  VelocityCheck(const Vehicle& vehicle, const motor_driver::Wheels& wheels);
  ~VelocityCheck();
  VelocityCheck(const VelocityCheck&) = delete;
  VelocityCheck& operator=(const VelocityCheck&) = delete;

  // In words, when the two differ; empty while they agree.
  std::string Failure();

 private:
  void Run();
  void CompareUntilTheEnd(SdoClient& client);
  bool Ended(std::chrono::milliseconds wait);
  std::string Compare(SdoClient& client, std::size_t wheel) const;

  const Vehicle& vehicle_;
  const Make& make_;
  const motor_driver::Wheels& wheels_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  std::string failure_;
  std::thread thread_;  // last: it uses the rest
};

}  // namespace motorctl
