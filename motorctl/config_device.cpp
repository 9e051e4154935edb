#include "config_device.h"

#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint16_t kIdentity = 0x1018;
constexpr std::uint16_t kDeviceType = 0x1000;

std::string Different(const char* what, const std::optional<std::uint32_t>& expected,
                      const std::optional<std::uint32_t>& found) {
  if (!expected || expected == found) return "";
  return std::string("its ") + what + " is " + (found ? Hex(*found, 8) : "not told") + ", not " +
         Hex(*expected, 8);
}

}  // namespace

ReadIdentity IdentityOf(ConfigDevice& device) {
  ReadIdentity result;
  result.answers = device.Read(kDeviceType, 0).heard();
  if (!result.answers) return result;
  const auto read = [&](std::uint8_t sub, std::optional<std::uint32_t>& number) {
    if (!result.answers) return;
    const SdoAnswer answer = device.Read(kIdentity, sub);
    result.answers = answer.heard();
    if (answer.ok()) number = answer.number();
  };
  read(1, result.identity.vendor);
  read(2, result.identity.product);
  read(3, result.identity.revision);
  read(4, result.identity.serial);
  return result;
}

std::string DifferentProduct(const ConfigIdentity& expected, const ConfigIdentity& found) {
  const std::string vendor = Different("vendor", expected.vendor, found.vendor);
  return vendor.empty() ? Different("product", expected.product, found.product) : vendor;
}

std::string DifferentRevision(const ConfigIdentity& expected, const ConfigIdentity& found) {
  return Different("revision", expected.revision, found.revision);
}

std::string DifferentSerial(const ConfigIdentity& expected, const ConfigIdentity& found) {
  return Different("serial number", expected.serial, found.serial);
}

}  // namespace motorctl
