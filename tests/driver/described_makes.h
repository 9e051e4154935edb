// What each make answers where all of them are asked the same: more of the makes of makes.h, for
// the tests every_drive_*. Written down from the manuals of the drives, as what they send is.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "makes.h"

namespace tested {

using Texts = std::vector<std::string>;

struct SpeedCommand {
  std::uint8_t node;
  int rpm[2];  // of as many motors as the node has
  std::string frame;
};

// A report, and what GetSpeed makes of it.
struct Reading {
  std::string report;
  int node;  // 99: not written
  double rpm[2];
  int counts[2];
};

// Readings that follow on reports which put the previous positions to known values.
struct Readings {
  Texts start;
  std::vector<Reading> then;
};

// One reading with another period than 10 ms.
struct PeriodReading {
  std::uint16_t period_ms;
  std::string start;
  Reading then;
};

// What becomes of the values of the caller where there is nothing to read.
enum class Values { kKept, kZero, kSignTurned };

// Which Init of DriverCommon the make has made its own.
enum class OwnInit { kNone, kOfOneNode, kOfTwoNodes };

// What CheckStatus looks at.
enum class StatusFrom { kNothing, kStatusword, kReports };

// The write that stores the parameters, after the identifier; empty: there is none.
struct Saving {
  std::string request;
  std::string confirmed;
  std::string refused;
  std::string object;  // as the log names it
};

struct DescribedMake {
  Make make;

  // Set-up of node 1 with a period of 10 ms, and of others.
  int confirmed_writes = 0;  // of the whole set-up
  std::vector<SetUpStep> speed_mode;
  std::vector<std::size_t> varying;
  std::vector<SetUpVariant> variants;
  bool leaves_an_answer = false;  // to the heartbeat, which is last and not awaited
  // A drive with own parts that refuses this request, counted from 0, outside of them.
  std::size_t refused_beside_own_parts = 0;
  Texts own_parts_called;
  std::function<std::unique_ptr<DriverCommon>(Texts&)> create_with_own_parts;

  // Operations.
  std::function<void(DriverCommon&, const DescribedMake&)> expect_defaults;
  OwnInit own_init = OwnInit::kNone;
  StatusFrom status_from = StatusFrom::kNothing;
  bool hears_all_after_status = true;
  bool clears_errors = false;
  bool is_reset_and_started = true;  // node by node, and started all at once
  Saving saving;
  std::vector<SpeedCommand> speeds;
  bool speeds_need_enabling = false;
  bool knows_what_was_sent = true;

  // Readings.
  bool exact_rpm = true;  // the counts of a revolution are a power of two
  Readings turning;
  Readings wrap_around;
  Readings short_frames;
  std::vector<PeriodReading> periods;
  Texts foreign_ids;  // near those that the class decodes
  Values after_foreign = Values::kKept;
  Values after_nothing = Values::kZero;
};

inline void PrintTo(const DescribedMake& described, std::ostream* out) {
  *out << described.make.name;
}

// One for each of Makes(), in the same order.
const std::vector<DescribedMake>& DescribedMakes();

inline std::string NameOf(const ::testing::TestParamInfo<DescribedMake>& test) {
  return test.param.make.name;
}

// The cases of a suite run for every make that answers true.
template <typename Condition>
std::vector<DescribedMake> DescribedMakesThat(Condition condition) {
  std::vector<DescribedMake> some;
  for (const DescribedMake& described : DescribedMakes()) {
    if (condition(described)) {
      some.push_back(described);
    }
  }
  return some;
}

// A case for one make. It knows the drive as a host does that takes any make.
class EveryDriveTest : public bus::PunctualBusTest,
                       public ::testing::WithParamInterface<DescribedMake> {
 protected:
  static std::unique_ptr<DriverCommon> Create(const char* interface = "can0") {
    return GetParam().make.create(interface);
  }
};

}  // namespace tested
