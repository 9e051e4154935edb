#include <zl_driver.h>

#include <cstdio>

int main() {
  ZlDriver drive("can0");
  if (!drive.ResetNode(1)) return 1;
  drive.CanDelayMs(1000);  // it boots; then nothing may turn on a speed left over from earlier
  if (!drive.SdoWriteWithFeedback(0x601, 0x23, 0x60FF, 1, 0)) return 1;
  if (!drive.SdoWriteWithFeedback(0x601, 0x23, 0x60FF, 2, 0)) return 1;
  if (!drive.ActiveNode(1) || drive.EnableSpeedModeAndPdoMode(1, 10) != 0) return 1;
  drive.StartNode(1);
  for (int cycle = 0; cycle < 300; ++cycle, drive.CanDelayMs(10)) {
    drive.SetSpeed(1, cycle < 200 ? 60 : 0, cycle < 200 ? 30 : 0);  // rpm; the last second stops
    std::uint8_t node = 1;
    double rpm[2] = {};
    int counts[2] = {};
    while (drive.GetReadQueueSize() > 0) {
      if (!drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1])) continue;
      std::printf("%7.1f rpm %7.1f rpm\n", rpm[0], rpm[1]);
    }
  }
}
