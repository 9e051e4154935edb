#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "sim/simulated_drive.h"

namespace sim {

using support::Eventually;
using Texts = std::vector<std::string>;

/// The drive on can1, a host's raw socket on can0.
class DriveOnBus : public bus::BusTest {
 protected:
  static Texts Exchange(bus::FarEnd& host, const std::string& request, std::size_t answers = 1) {
    host.Forget();
    host.Send(request);
    EXPECT_TRUE(host.WaitFrames(answers)) << "no answer to " << request;
    return host.Frames();
  }

  // Every write to node 1 must be acknowledged.
  static void WriteAll(bus::FarEnd& host, const Texts& requests) {
    for (const std::string& request : requests) {
      EXPECT_EQ(Exchange(host, request), Texts{"581#60" + request.substr(6, 6) + "00000000"});
    }
  }
};

}  // namespace sim
