// motorctl guard in a terminal: its command has the keyboard.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include "guarded.h"

namespace {

using std::chrono::milliseconds;

TEST_F(GuardTest, LetsItsCommandReadTheKeyboard) {
  Process guard(GuardLine({"sh", "-c", "read word; test $word = go && exit 7"}), Output::kTerminal);
  Host(guard);
  guard.Type("go\n");
  EXPECT_EQ(guard.Wait(), 7) << guard.Out();
}

TEST_F(GuardTest, StopsAndEndsItsCommandFromTheKeyboard) {
  Process guard(HostLine({"sleep=60000"}), Output::kTerminal);
  Host(guard);
  std::this_thread::sleep_for(milliseconds(200));
  guard.Type("\x1a");  // Ctrl-Z
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Out(), "is stopped"); })) << guard.Out();
  guard.Type("\x03");  // Ctrl-C
  EXPECT_EQ(guard.Wait(), 128 + SIGINT) << guard.Out();
}

}  // namespace
