// The makes of drive as the tests know them, written down from the manuals of the drives. The one
// list that all tests of every make read: a new make needs one entry here.
#pragma once

#include <amps_driver.h>
#include <hls_driver.h>
#include <kinco_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "amps_script.h"
#include "hls_script.h"
#include "kinco_script.h"
#include "set_up_script.h"
#include "tt_script.h"
#include "zl_script.h"

namespace tested {

// An object that stores a target velocity, and the SDO command that writes it.
struct TargetVelocity {
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
};

// What GetSpeed reads.
struct PositionReports {
  std::uint32_t first_id;  // identifiers that the class decodes
  std::uint32_t last_id;
  std::size_t offset;  // of the first position, in bytes
  double counts_per_revolution;
  bool true_for_others;  // the answer to a frame that is not a position report
};

struct Make {
  std::string name;  // of the simulated drive, too
  std::unique_ptr<DriverCommon> (*create)(const char* interface);
  std::vector<SetUpStep> script;  // of node 1 with a period of 10 ms
  std::size_t motors;             // of one node
  double sign;                    // of the motor's own rotation
  std::vector<TargetVelocity> target_velocities;
  std::string backwards;  // turns the motors of node 1 at -60 rpm
  PositionReports reports;
};

// What a test report shows of the parameter.
inline void PrintTo(const Make& make, std::ostream* out) { *out << make.name; }

template <typename Drive>
std::unique_ptr<DriverCommon> Create(const char* interface) {
  return std::make_unique<Drive>(interface);
}

inline std::unique_ptr<DriverCommon> CreateKinco(const char* interface) {
  return std::make_unique<KincoDriver>(interface, 10000);
}

inline const std::vector<Make>& Makes() {
  // clang-format off
  static const std::vector<Make> makes = {
      {"zl", Create<ZlDriver>, zl_script::WholeSetUp(), 2, 1,
       {{0x23, 0x60FF, 1}, {0x23, 0x60FF, 2}}, "201#C4FFFFFFC4FFFFFF",
       {0x181, 0x181, 0, 4096, false}},
      {"tt", Create<TtDriver>, tt_script::WholeSetUp(), 1, 1,
       {{0x23, 0x60FF, 0}}, "201#C4FFFFFF",
       {0x181, 0x182, 0, 32768, true}},
      {"hls", Create<HlsDriver>, hls_script::WholeSetUp(), 1, -1,
       {{0x23, 0x60FF, 0}}, "201#A8FDFFFF",
       {0x180, 0x181, 0, 131072, true}},
      {"amps", Create<AMPSDriver>, amps_script::WholeSetUp(), 1, 1,
       {{0x2B, 0x2FF0, 9}}, "601#2BF02F09C4FFFFFF",
       {0x181, 0x182, 4, 4096, true}},
      {"kinco", CreateKinco, kinco_script::WholeSetUp(), 1, 1,
       {{0x23, 0x60FF, 0}}, "201#0080FDFF",
       {0x181, 0x184, 0, 10000, false}},
  };
  // clang-format on
  return makes;
}

}  // namespace tested
