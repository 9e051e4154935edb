// What both complete hosts need.
#pragma once

#include <signal.h>
#include <wheels.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <string>

inline std::atomic<int> g_end_requests{0};

// Whatever a person or the system does to end or to stop this process, apart from SIGKILL and
// SIGSTOP, asks for an orderly end: a process that sleeps with turning wheels (Ctrl-Z, or a job in
// the background that uses the terminal) is no better than a dead one. A closed terminal or pipe
// must not kill the one who can stop the wheels.
inline void EndOnSignals() {
  struct sigaction action = {};  // without SA_RESTART: output that is held is given up, too
  action.sa_handler = [](int) { ++g_end_requests; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU}) {
    sigaction(signal, &action, nullptr);
  }
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

inline bool EndRequested() { return g_end_requests != 0; }

// True when every wheel was measured to stand still. Zeros flow as long as this process lives, also
// to a bus that comes back: it does not end by itself as long as a wheel may turn. The next signal
// ends it all the same.
template <typename Say>
bool StopForSure(motor_driver::Wheels& wheels, Say say) {
  for (const int requests = g_end_requests; !wheels.Stop();) {
    if (g_end_requests != requests) {
      return false;
    }
    say("THE STOP IS NOT CONFIRMED, zero is sent on; Ctrl-C gives up: " +
        wheels.GetReport().reason);
  }
  return true;
}

// CLI::Range takes what is not a number for one of every range, and a run of "nan" seconds is one
// without end.
inline CLI::Validator Between(double low, double high) {
  const CLI::Range range(low, high);
  return CLI::Validator(
      [range](std::string& text) {
        double value = 0;
        const bool number = CLI::detail::lexical_cast(text, value) && value == value;
        return number ? range(text) : text + " is not a number";
      },
      "NUMBER");
}
