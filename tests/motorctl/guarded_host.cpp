// A host that does what a test wants: each argument is a step. It speaks for itself and shares no
// code with the library.
//   beat=MS      lives, and says so every 20 ms
//   turn=MS      commands a speed to node 1 on can0 every 5 ms
//   drive=MS     both
//   sleep=MS     neither
//   say=TEXT     to the socket in NOTIFY_SOCKET
//   leave        goes on in a session of its own, as a grandchild; the process itself ends with 0
//   stop, abort, exit=N
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void Say(const std::string& text) {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr) std::abort();
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, name, sizeof(address.sun_path) - 1);
  if (name[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  if (::sendto(socket, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address), size) <
      0) {
    std::abort();
  }
  ::close(socket);
}

int CanSocket() {
  const int socket = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex("can0"));
  if (::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) std::abort();
  return socket;
}

void Live(const std::string& how, milliseconds time) {
  can_frame speed = {};
  speed.can_id = 0x201;
  speed.can_dlc = 8;
  speed.data[0] = 60;
  const int socket = how == "turn" || how == "drive" ? CanSocket() : -1;
  const auto end = Clock::now() + time;
  for (auto next_beat = Clock::now(); Clock::now() < end;) {
    if (socket >= 0) {
      [[maybe_unused]] const ssize_t written = ::write(socket, &speed, sizeof(speed));
    }
    if ((how == "beat" || how == "drive") && Clock::now() >= next_beat) {
      next_beat += milliseconds(20);
      Say("WATCHDOG=1");
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  if (socket >= 0) ::close(socket);
}

// The process itself ends last: whoever ends its group does not meet the one that left.
void Leave() {
  if (const pid_t child = ::fork(); child != 0) {
    ::waitpid(child, nullptr, 0);
    ::_exit(0);
  }
  ::setsid();
  if (::fork() != 0) ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const std::string step = word.substr(0, word.find('='));
    const std::string value = step.size() < word.size() ? word.substr(step.size() + 1) : "";
    if (step == "say") {
      Say(value);
    } else if (step == "exit") {
      return std::atoi(value.c_str());
    } else if (step == "leave") {
      Leave();
    } else if (step == "stop") {
      ::raise(SIGSTOP);
    } else if (step == "abort") {
      std::abort();
    } else {
      Live(step, milliseconds(std::atoi(value.c_str())));
    }
  }
}
