// The configuration file of KincoDriver: whatever it holds, loading ends with true, false or one of
// the two documented exceptions, and the look-ups answer.
#include <kinco_driver.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const int file = ::memfd_create("config", MFD_CLOEXEC);
  fuzz::Require(::write(file, bytes, size) == static_cast<ssize_t>(size), "the file is written");
  KincoDriver drive("absent", 10000);
  try {
    drive.LoadConfig("/proc/self/fd/" + std::to_string(file));
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  ::close(file);
  for (unsigned code = 0; code <= 0xFF; code += 0x0F) {
    const auto status = static_cast<std::uint8_t>(code);
    fuzz::Require(drive.GetDriverStatusCodeInfo(status).code == code, "code of a driver status");
    fuzz::Require(drive.GetMotorStatusCodeInfo(status).code == code, "code of a motor status");
  }
  drive.GetErrorCodeInfo(0x7380);
  return 0;
}
