// A process that gets no thread any more. The library makes its threads through the C library: this
// binary decides whether it may.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kinco_driver.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "bus_environment.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

std::atomic<bool> g_shortage{false};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  static const auto original =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  return g_shortage ? EAGAIN : original(thread, attributes, body, argument);
}

namespace {

class ThreadShortageTest : public bus::BusTest {};

// Its wheels may be turning: the process must live on, and supervise again when it can.
TEST_F(ThreadShortageTest, TheSupervisionOutlivesIt) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  driver.AddHeartbeatId(0x701);
  support::OutputCapture capture;
  driver.StartErrorParsingLoop();
  g_shortage = true;
  bus::SetDown("can0");
  EXPECT_TRUE(Eventually([&] {
    return capture.Out().find("[ERROR] Error parsing CAN socket recovery failed\n") !=
           std::string::npos;
  }));
  bus::SetUp("can0");
  g_shortage = false;
  EXPECT_TRUE(Eventually([&] {
    far_end.Send(std::string("481#") + kReadyStatus);
    return driver.GetDriverStatus(1) == DriverStatus::Ready;
  }));
  driver.StopErrorParsingLoop();
  capture.Stop();
}

}  // namespace
