#include "matrix_faults.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "fault_test.h"
#include "held_output.h"

namespace {

using motor_driver::Fault;

void Nothing(Scene&) {}

std::function<void(Scene&)> Inject(const std::string& fault) {
  return [fault](Scene& scene) { scene.drives[2].Inject(fault); };
}

void EndInjected(Scene& scene) { scene.drives[2].ClearFaults(); }

void RefuseTransfers(Scene& scene) {
  for (const char* object : {"0x6040", "0x6060", "0x1017"}) {
    scene.drives[2].Inject(std::string("abort-object=") + object);
  }
  if (scene.phase == Phase::kBeforeEnabling) {
    scene.drives[2].Inject(scene.make.commands_by_sdo ? "abort-object=0x2FF0"
                                                      : "abort-object=0x60FF");
  }
}

void MakeInterfacesAnew(Scene& scene) {
  scene.earlier = scene.Records();
  bus::DeletePair();
  for (const int node : TwoNodes()) {
    scene.drives.Unplug(node);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  bus::CreatePair();
  scene.bus_record = std::make_unique<bus::FarEnd>();
  for (const int node : TwoNodes()) {
    scene.drives.PlugIn(node);
  }
}

void LoseFrames(Scene&) {
  bus::TrafficControl("netem loss 20%", "can0");
  bus::TrafficControl("netem loss 20%", "can1");
}

void EndLoss(Scene&) {
  EndTrafficControl("can0");
  EndTrafficControl("can1");
}

// Descriptors 1 and 2 lead elsewhere for a time.
class Outputs {
 public:
  Outputs(const char* path, int flags) : saved_{::dup(1), ::dup(2)} {
    for (const int output : {1, 2}) {
      const int other = ::open(path, flags | O_CLOEXEC);
      ::dup2(other, output);
      ::close(other);
    }
  }
  ~Outputs() {
    for (const int output : {1, 2}) {
      ::dup2(saved_[output - 1], output);
      ::close(saved_[output - 1]);
    }
  }
  Outputs(const Outputs&) = delete;
  Outputs& operator=(const Outputs&) = delete;

 private:
  int saved_[2];
};

struct HeldOutputs {
  HeldOutput out{1};
  HeldOutput error{2};
};

void LetGo(Scene& scene) { scene.held.reset(); }

// Every signal that can be caught, one after the other, to the process as a whole.
void SendSignals(Scene&) {
  for (int number = 1; number <= SIGRTMAX; ++number) {
    const bool takes_part = number != SIGKILL && number != SIGSTOP && number != SIGCHLD &&
                            (number < 32 || number >= SIGRTMIN);
    if (!takes_part) {
      continue;
    }
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ::sigaction(number, &action, &before);
    ::kill(::getpid(), number);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ::sigaction(number, &before, nullptr);
  }
}

std::vector<MatrixFault> Table() {
  const std::set<Fault> none = {Fault::kNone};
  const std::set<Fault> bus = {Fault::kBusFailed, Fault::kNoInterface};
  const std::set<Fault> gone = {Fault::kNodeSilent, Fault::kNoFeedback};
  const std::set<Fault> refused = {Fault::kSetUpRefused};
  std::vector<MatrixFault> table = {
      {"unplugged",
       [](Scene& scene) { scene.drives.Unplug(2); },
       [](Scene& scene) { scene.drives.PlugIn(2); },
       gone,
       {Fault::kNodeSilent},
       {Fault::kNodeSilent}},
      {"rebooted",
       [](Scene& scene) {
         scene.drives[2].PowerCut();
         scene.drives[2].PowerOn();
         // Heard before the next step: what restarts in the middle of one has lost its target.
         std::this_thread::sleep_for(std::chrono::milliseconds(100));
       },
       Nothing,
       {Fault::kNodeRestarted},
       none,
       none},
      {"trips",
       [](Scene& scene) { scene.drives[2].LatchError(0x2310); },
       Nothing,
       {Fault::kDriveError},
       none,
       none},
      {"heartbeat_lost",
       Inject("no-heartbeat-after-ms=0"),
       EndInjected,
       {Fault::kNodeSilent},
       {Fault::kNodeSilent},
       {Fault::kNodeSilent}},
      {"feedback_lost",
       Inject("no-reports-after-ms=0"),
       EndInjected,
       {Fault::kNoFeedback},
       {Fault::kNoFeedback},
       {Fault::kNoFeedback}},
      {"blocked",
       Inject("block-motor-after-ms=0"),
       EndInjected,
       {Fault::kNotFollowing},
       none,
       none},
      {"emergency_stop",
       [](Scene& scene) { scene.drives[2].PressEmergencyStop(); },
       [](Scene& scene) { scene.drives[2].ReleaseEmergencyStop(); },
       {Fault::kEmergencyStop},
       {Fault::kEmergencyStop},
       {Fault::kEmergencyStop},
       2,
       true,
       true},
      {"interface_down", [](Scene&) { bus::SetDown("can0"); }, [](Scene&) { bus::SetUp("can0"); },
       bus, bus, bus, 0, false},
      {"interface_anew", MakeInterfacesAnew, Nothing, bus, bus, bus, 0, false},
      {"takes_no_frame", [](Scene&) { bus::TrafficControl("netem limit 1 delay 60s"); },
       [](Scene&) { EndTrafficControl("can0"); }, bus, bus, bus, 0, false},
      {"sdo_aborts", RefuseTransfers, EndInjected, none, refused, refused},
      {"signals", SendSignals, Nothing, none, none, none},
      // As one that is closed: writing is EBADF. The number stays taken, which the test needs back.
      {"outputs_closed",
       [](Scene& scene) { scene.held = std::make_shared<Outputs>("/dev/null", O_RDONLY); }, LetGo,
       none, none, none},
      {"outputs_full",
       [](Scene& scene) { scene.held = std::make_shared<Outputs>("/dev/full", O_WRONLY); }, LetGo,
       none, none, none},
      {"outputs_held", [](Scene& scene) { scene.held = std::make_shared<HeldOutputs>(); }, LetGo,
       none, none, none},
      {"host_hangs",
       [](Scene& scene) {
         if (scene.phase == Phase::kBeforeEnabling || scene.phase == Phase::kBringUp) {
           std::this_thread::sleep_for(std::chrono::milliseconds(700));
         }
       },
       Nothing, none, none, none},
      {"host_throws",
       [](Scene&) { throw std::runtime_error("of the host"); },
       Nothing,
       none,
       {Fault::kInterrupted},
       {Fault::kInterrupted},
       0},
  };
  // Anything may come of it, and nothing need.
  std::set<Fault> any;
  for (int fault = 0; fault <= static_cast<int>(Fault::kNoRealtime); ++fault) {
    any.insert(static_cast<Fault>(fault));
  }
  table.push_back({"loss", LoseFrames, EndLoss, any, any, any, -1});
  return table;
}

}  // namespace

const std::vector<MatrixFault>& MatrixFaults() {
  static const std::vector<MatrixFault> faults = Table();
  return faults;
}
