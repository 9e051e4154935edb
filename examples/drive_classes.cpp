// A drive class alone, for hosts that want no thread that commands but their own. What the library
// for whole vehicles does otherwise (docs/wheels.md) is then theirs:
//   - zero target velocity, confirmed, before anything is enabled: drives keep what a host that
//     crashed commanded last
//   - a set-up with failed writes has failed: nothing may be driven after it
//   - in every cycle: does the transport work, did reports and heartbeats come? There is no watchdog
//   - whatever ended the motion: zero, again and again, until the wheels were measured to stand
//   - no cycle may wait for what a person sees: a terminal that is held holds printf() too
#include <signal.h>
#include <zl_driver.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::uint8_t kNode = 1;
constexpr std::uint16_t kPeriodMs = 10;
constexpr int kCycles = 300;
constexpr int kMostCyclesWithoutReport = 25;
constexpr int kStandingReports = 20;
constexpr int kMostStopCycles = 300;

std::atomic<bool> g_end{false};

struct Feedback {
  int cycles_without_report = 0;
  int reports_of_standstill = 0;
  double rpm[2] = {};
};

// Zero, confirmed, in both motors.
bool ConfirmZero(ZlDriver& drive) {
  return drive.SdoWriteWithFeedback(0x600 + kNode, 0x23, 0x60FF, 1, 0) &&
         drive.SdoWriteWithFeedback(0x600 + kNode, 0x23, 0x60FF, 2, 0);
}

bool BringUp(ZlDriver& drive) {
  drive.AddHeartbeatId(0x700 + kNode);
  drive.SetHeartbeatTimeOut(5);  // the drive sends one every 2 s
  if (drive.GetCanError() != 0 || !drive.ResetNode(kNode)) {
    return false;
  }
  drive.CanDelayMs(1000);  // it boots
  return ConfirmZero(drive) && drive.ActiveNode(kNode) &&
         drive.EnableSpeedModeAndPdoMode(kNode, kPeriodMs) == 0;
}

// One period: commands, then takes every frame that came. Readings are coarse: one count in 10 ms
// is 1.5 rpm.
bool Cycle(ZlDriver& drive, int left_rpm, int right_rpm, Feedback& feedback) {
  const bool sent = drive.SetSpeed(kNode, left_rpm, right_rpm);
  drive.CanDelayMs(kPeriodMs);
  ++feedback.cycles_without_report;
  while (drive.GetReadQueueSize() > 0) {
    std::uint8_t node = 0;
    int counts[2] = {};
    if (drive.GetSpeed(node, feedback.rpm[0], counts[0], feedback.rpm[1], counts[1])) {
      feedback.cycles_without_report = 0;
      const bool stands = feedback.rpm[0] == 0 && feedback.rpm[1] == 0;
      feedback.reports_of_standstill = stands ? feedback.reports_of_standstill + 1 : 0;
    }
  }
  return sent;
}

bool Healthy(ZlDriver& drive, const Feedback& feedback) {
  return drive.GetCanError() == 0 && drive.IsNodeOnline(kNode) &&
         feedback.cycles_without_report <= kMostCyclesWithoutReport;
}

// True when both wheels were measured to stand still. A drive that left the operational state hears
// no speed command, but still SDOs.
bool Stop(ZlDriver& drive) {
  Feedback feedback;
  for (int cycle = 0; cycle < kMostStopCycles; ++cycle) {
    if (drive.GetCanError() != 0) {
      drive.CanRecover();  // the wheels may still turn at the last speed that came through
    }
    // Reports from before the first zero prove nothing.
    if (!Cycle(drive, 0, 0, feedback) || cycle == 0) {
      feedback.reports_of_standstill = 0;
    }
    if (feedback.reports_of_standstill >= kStandingReports) {
      return true;
    }
  }
  ConfirmZero(drive);
  return false;
}

}  // namespace

int main() {
  struct sigaction action = {};
  action.sa_handler = [](int) { g_end = true; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
    sigaction(signal, &action, nullptr);
  }
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);

  ZlDriver drive("can0");
  bool well = BringUp(drive);
  if (well) {
    drive.StartNode(kNode);
    Feedback feedback;
    for (int cycle = 0; cycle < kCycles && well && !g_end; ++cycle) {
      well = Cycle(drive, 60, 30, feedback) && Healthy(drive, feedback);
      if (cycle % 100 == 99) {
        std::printf("%7.1f rpm %7.1f rpm\n", feedback.rpm[0], feedback.rpm[1]);
      }
    }
  } else {
    std::fprintf(stderr, "node 1 on can0 could not be brought up\n");
  }
  // After a bring-up that failed, too: it may have enabled the drive.
  const bool stopped = Stop(drive);
  std::fprintf(stderr, "%s\n", stopped ? "both wheels stand still" : "THE STOP IS NOT CONFIRMED");
  return well && stopped ? EXIT_SUCCESS : EXIT_FAILURE;
}
