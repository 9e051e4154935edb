// A host's control loop on a machine without drive, bus or CAN: FakeDriver logs what a drive would
// be told and answers with fixed speeds. Needs nothing but the installed package:
//   g++ -std=c++17 without_hardware.cpp $(pkg-config --cflags --libs motor_driver)
#include <fake_driver.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::uint8_t kNode = 1;
constexpr std::uint16_t kPeriodMs = 10;
constexpr int kCycles = 20;

// Knows no make: the same function drives real wheels.
bool Drive(DriverCommon& drive) {
  if (!drive.ResetNode(kNode) || !drive.ActiveNode(kNode) ||
      drive.EnableSpeedModeAndPdoMode(kNode, kPeriodMs) != 0) {
    return false;
  }
  drive.StartNode(kNode);
  for (int cycle = 0; cycle < kCycles; ++cycle, drive.CanDelayMs(kPeriodMs)) {
    const bool stopping = cycle >= kCycles / 2;
    std::uint8_t node = kNode;
    double rpm[2] = {};
    int counts[2] = {};
    if (!drive.SetSpeed(kNode, stopping ? 0 : 60, stopping ? 0 : 30) ||
        !drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1])) {
      return false;
    }
    std::printf("%7.1f rpm %7.1f rpm\n", rpm[0], rpm[1]);
  }
  return drive.CheckStatus(kNode);
}

}  // namespace

int main() {
  // Speeds are logged at debug. What the user has set stays.
  setenv("SPDLOG_STDOUT", "true", 0);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "debug", 0);
  // It logs that there is no such interface, and works.
  FakeDriver drive("no_can");
  const bool done = Drive(drive);
  std::puts(done ? "the control loop ran; no wheel turned" : "FAILED");
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
