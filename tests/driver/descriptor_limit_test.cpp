// A host that lowers its limit of descriptors below the number of a socket that is open: the kernel
// then puts nothing in the place of that socket any more.
#include <driver_can.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "processes.h"

namespace {

class DescriptorLimitTest : public bus::BusTest {
 public:
  DescriptorLimitTest() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    std::vector<int> below;
    do {
      below.push_back(::fcntl(0, F_DUPFD_CLOEXEC, 3));
    } while (below.back() < 50);
    can_ = std::make_unique<DriverCan>("can0");
    for (const int descriptor : below) {
      ::close(descriptor);
    }
    Allow(50);
  }
  ~DescriptorLimitTest() override { Allow(before_.rlim_cur); }

 protected:
  void Allow(rlim_t count) {
    const rlimit limit = {count, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  }

  rlimit before_ = {};
  bus::FarEnd far_end_;
  std::unique_ptr<DriverCan> can_;
};

TEST_F(DescriptorLimitTest, ASocketThatCannotTakeThePlaceOfTheOldOneIsAFailure) {
  const std::size_t descriptors = support::OpenDescriptors();
  support::OutputCapture capture;
  EXPECT_FALSE(can_->InitCanSocket());
  capture.Stop();
  EXPECT_EQ(support::WithoutNumbers(capture.Out()),
            "[INFO] Initializing CAN socket for device: can0\n"
            "[ERROR] Failed to create CAN socket for device: can0\n");
  EXPECT_EQ(can_->GetCanError(), 1U);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  // The old one is as it was.
  Queue(*can_, far_end_, {"181#01"});
  const unsigned char nothing[8] = {};
  EXPECT_TRUE(can_->CanWrite(0x123, nothing, 0));
  EXPECT_TRUE(far_end_.WaitFrames(1));
}

TEST_F(DescriptorLimitTest, StopsAndRecoversAllTheSame) {
  support::OutputCapture capture;
  const std::size_t descriptors = support::OpenDescriptors();
  const auto begin = bus::Clock::now();
  can_->StopReading();
  EXPECT_LT(bus::Clock::now() - begin, std::chrono::milliseconds(500)) << "on a silent bus";
  EXPECT_EQ(support::OpenDescriptors(), descriptors - 1);
  EXPECT_EQ(support::Threads(), 2U) << "this one and the far end's";
  EXPECT_TRUE(can_->CanRecover());
  Queue(*can_, far_end_, {"181#01"});
}

}  // namespace
