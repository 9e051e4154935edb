// Tells what became of every confirmed SDO transfer of a thread: drive classes only count the
// writes that fail. For the libraries of this repository; not installed.
#pragma once

#include <driver_can.h>

#include <cstdint>

namespace motor_driver {

struct SdoTransfer {
  // kMisanswered: what came was the answer to an earlier request of the object, which was late.
  enum class Outcome { kNotSent, kSilent, kMisanswered, kRefused, kAccepted };

  std::uint32_t can_id = 0;  // of the request, 0x600 + node
  std::uint8_t command = 0;  // of the request
  std::uint16_t index = 0;
  std::uint8_t sub_index = 0;
  std::uint32_t value = 0;  // that was to be written
  Outcome outcome = Outcome::kNotSent;
  std::uint32_t answer = 0;  // value read, or abort code when refused
};

class SdoObserver {
 public:
  virtual ~SdoObserver() = default;

  // On the thread that made the transfer, at its end, with the SDO mutex held: no other transfer
  // from here.
  virtual void Finished(const SdoTransfer& transfer) = 0;
};

// Sets the observer of the calling thread, nullptr for none, and returns the one before.
MOTOR_DRIVER_EXPORT SdoObserver* SetSdoObserver(SdoObserver* observer);

// What was set last on the calling thread. Of the transfer alone, not exported.
SdoObserver* CurrentSdoObserver();

}  // namespace motor_driver
