// A binary of its own, with one case for each make: the previous positions are zero only until the
// first reading of a process. One that moved another's would spoil that make's case.
#include <gtest/gtest.h>
#include <linux/can.h>

#include <cstdint>
#include <memory>

#include "bus_environment.h"
#include "far_end.h"
#include "makes.h"
#include "observed_driver.h"

namespace {

// As many revolutions from position 0, on every motor.
std::string Report(const tested::Make& make, std::uint32_t id, std::uint32_t revolutions) {
  const auto counts = revolutions * static_cast<std::uint32_t>(make.reports.counts_per_revolution);
  can_frame frame = {};
  frame.can_id = id;
  frame.can_dlc = static_cast<std::uint8_t>(make.reports.offset + 4 * make.motors);
  for (std::size_t at = make.reports.offset; at < frame.can_dlc; ++at) {
    const std::size_t byte = (at - make.reports.offset) % 4;
    frame.data[at] = static_cast<std::uint8_t>(counts >> 8 * byte);
  }
  return bus::FormatFrame(frame);
}

class FirstReadingsTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {
 protected:
  // Takes one frame.
  bool Read() {
    return GetParam().motors == 2
               ? drive_->GetSpeed(node_, rpm_[0], counts_[0], rpm_[1], counts_[1])
               : drive_->GetSpeed(node_, rpm_[0], counts_[0]);
  }

  // Reads a report that is so many revolutions from the one before.
  void ExpectReading(std::uint32_t id, std::uint32_t revolutions, std::uint32_t since) {
    SCOPED_TRACE(id);
    Queue(*drive_, far_end_, {Report(GetParam(), id, revolutions)});
    EXPECT_TRUE(Read());
    if (GetParam().motors == 1) {
      EXPECT_EQ(node_, id - 0x180);
    }
    for (std::size_t motor = 0; motor < GetParam().motors; ++motor) {
      // A revolution in a period of 10 ms.
      EXPECT_DOUBLE_EQ(rpm_[motor], GetParam().sign * 6000.0 * since);
      EXPECT_EQ(counts_[motor], revolutions * GetParam().reports.counts_per_revolution);
    }
  }

  bus::FarEnd far_end_;
  std::unique_ptr<DriverCommon> drive_ = GetParam().create("can0");
  std::uint8_t node_ = 99;
  double rpm_[2] = {};
  int counts_[2] = {};
};

TEST_P(FirstReadingsTest, StartFromZeroInEachNode) {
  const tested::PositionReports& reports = GetParam().reports;
  const std::uint32_t foreign = reports.last_id + 1;
  Queue(*drive_, far_end_, {Report(GetParam(), foreign, 7)});
  EXPECT_EQ(Read(), reports.true_for_others);
  for (std::uint32_t id = reports.first_id; id <= reports.last_id; ++id) {
    const std::uint32_t revolutions = 1 + id - reports.first_id;
    ExpectReading(id, revolutions, revolutions);
  }
  for (std::uint32_t id = reports.first_id; id <= reports.last_id; ++id) {
    ExpectReading(id, 5, 4 - (id - reports.first_id));
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, FirstReadingsTest, ::testing::ValuesIn(tested::Makes()),
                         [](const ::testing::TestParamInfo<tested::Make>& test) {
                           return test.param.name;
                         });

}  // namespace
