#include "bus_environment.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "eventually.h"

namespace bus {
namespace {

bool touched = false;

bool IsUp(const char* interface) {
  const int any_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strncpy(request.ifr_name, interface, sizeof(request.ifr_name) - 1);
  const bool up =
      ::ioctl(any_socket, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
  ::close(any_socket);
  return up;
}

// Starting programs keeps a processor busy, and some are there to flood the bus: hosts and drives of
// other tests go before them.
bool Run(const std::string& command) {
  const pid_t child = ::fork();
  if (child == 0) {
    const sched_param none = {0};
    ::sched_setscheduler(0, SCHED_OTHER, &none);
    ::setpriority(PRIO_PROCESS, 0, 0);
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The kernel lets frames through only some time after the second end was set up: what is sent
// before is lost without an error.
void WaitUntilCarrying() {
  support::Eventually([] {
    const bool are_up = IsUp("can0") && IsUp("can1");
    return !are_up || Run("ip -br link show type vxcan | awk '$2 != \"UP\" { exit 1 }'");
  });
}

void Touch(const std::string& command) {
  touched = true;
  Command(command);
}

}  // namespace

void BePunctual() {
  const sched_param first = {1};
  ::sched_setscheduler(0, SCHED_RR, &first);
}

void Command(const std::string& command) {
  if (!Run(command)) {
    ADD_FAILURE() << "failed: " << command;
  }
}

bool Enter() {
  if (::unshare(CLONE_NEWNET) != 0 ||
      !Run("{ ip link add dev can0 type vxcan peer name can1 && ip link set can0 up && "
           "ip link set can1 up; } 2>/dev/null")) {
    return false;
  }
  WaitUntilCarrying();
  return true;
}

void CreatePair() {
  Touch(
      "ip link add dev can0 type vxcan peer name can1 && ip link set can0 up && "
      "ip link set can1 up");
  WaitUntilCarrying();
}

void DeletePair() { Touch("ip link delete can0"); }

void SetUp(const std::string& interface) {
  Touch("ip link set " + interface + " up");
  WaitUntilCarrying();
}

void SetDown(const std::string& interface) { Touch("ip link set " + interface + " down"); }

void TrafficControl(const std::string& discipline, const std::string& interface) {
  Touch("tc qdisc replace dev " + interface + " root " + discipline);
}

void FreshPair() {
  if (!touched && IsUp("can0") && IsUp("can1")) {
    return;
  }
  if (::if_nametoindex("can0") != 0) {
    DeletePair();
  }
  CreatePair();
  touched = false;
}

}  // namespace bus
