// The drive that a configuration is read from or written to.
#pragma once

#include <string>

#include "config_file.h"
#include "sdo_client.h"

namespace motorctl {

class ConfigDevice {
 public:
  virtual ~ConfigDevice() = default;

  virtual SdoAnswer Read(std::uint16_t index, std::uint8_t sub) = 0;
  virtual SdoAnswer Write(std::uint16_t index, std::uint8_t sub, const Bytes& bytes) = 0;

  // Why what has begun must not go on: a signal, a drive that booted up, another host. Empty while
  // nothing is in the way.
  virtual std::string Disturbance() = 0;
  // Whether the drive booted up since the device was made: it may be another one.
  virtual bool booted_up() const = 0;
};

// What object 0x1018 says; `answers`: false where the drive says nothing at all.
struct ReadIdentity {
  ConfigIdentity identity;
  bool answers = false;
};
ReadIdentity IdentityOf(ConfigDevice& device);

// "the vendor is 0x00000001, not 0x00000002": of vendor and product, of the revision and of the
// serial number. Empty where they are the same, or where `expected` does not know one.
std::string DifferentProduct(const ConfigIdentity& expected, const ConfigIdentity& found);
std::string DifferentRevision(const ConfigIdentity& expected, const ConfigIdentity& found);
std::string DifferentSerial(const ConfigIdentity& expected, const ConfigIdentity& found);

}  // namespace motorctl
