// The folders of incidents, without a bus.
#include "incident.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace motorctl {
namespace {

// A clock that was set back comes to the same millisecond again.
TEST(IncidentStore, LeavesAnIncidentOfTheSameTimeAsItIs) {
  std::string directory = ::testing::TempDir() + "/incident_test.XXXXXX";
  ASSERT_NE(::mkdtemp(directory.data()), nullptr);
  const IncidentStore store(directory, "can0", RecordLimits(), "");
  const FrameRing frames(10);
  Incident incident;
  incident.trigger.nanoseconds = 1'700'000'000'123'456'789;
  EXPECT_EQ(store.Write(incident, frames), directory + "/incident-20231114T221320.123Z-can0");
  EXPECT_EQ(store.Write(incident, frames), directory + "/incident-20231114T221320.124Z-can0");
  EXPECT_EQ(store.Write(incident, frames), directory + "/incident-20231114T221320.125Z-can0");
  for (const char* name : {"123", "124", "125"}) {
    EXPECT_TRUE(std::filesystem::exists(directory + "/incident-20231114T221320." + name +
                                        "Z-can0/events.jsonl"));
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace motorctl
