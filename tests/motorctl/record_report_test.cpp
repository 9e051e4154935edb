// From a fault on the bus to its report: recorder, folder, report.
#include <gtest/gtest.h>

#include <set>

#include "record_bench.h"

namespace {

class RecordReportTest : public RecordTest {
 protected:
  RecordReportTest() {
    std::ofstream(vehicle_) << "make: zl\ninterface: can0\nwheels:\n"
                               "  - {name: left, node: 1, motor: 1}\n"
                               "  - {name: right, node: 1, motor: 2, mirrored: true}\n";
  }

  // What the report of a folder has of one kind; the make is the folder's own.
  static std::vector<Json> EventsOf(const Result& report, const std::string& event) {
    std::vector<Json> found;
    for (const Json& object : report.Objects()) {
      if (object["event"] == event) found.push_back(object);
    }
    return found;
  }

  const std::string vehicle_ = directory_ + "/vehicle.yaml";
};

TEST_F(RecordReportTest, NamesTheFaultAndWhatWasCommandedBefore) {
  sim::SimulatedDrive drive(Options("zl"));
  Process recorder(Recording({"--vehicle", vehicle_}));
  AwaitStart(recorder);
  Process jog({"jog", "1", "--make", "zl", "--rpm", "30", "--rpm2", "-20", "--seconds", "30",
               "--ramp", "600", "--yes"});
  ASSERT_TRUE(Eventually([&] { return Contains(jog.Out(), "target   30, measured   30"); }))
      << jog.Out() << jog.Err();
  drive.LatchError(0x2310);
  EXPECT_NE(jog.Wait(), 0);
  ASSERT_TRUE(AwaitFolders(1)) << recorder.Err();
  const std::string folder = Folders()[0];

  const Result json = Motorctl({"report", folder, "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  const Json log = EventsOf(json, "log").at(0);
  EXPECT_EQ(log["make"], "zl");
  EXPECT_EQ(log["make_from"], "system.txt");
  EXPECT_EQ(log["zero_is"], "trigger");
  Json emergency;
  for (const Json& finding : EventsOf(json, "finding")) {
    if (finding["kind"] == "emergency") emergency = finding;
  }
  ASSERT_TRUE(emergency.is_object()) << json.out;
  EXPECT_EQ(emergency["details"]["error_code"], 0x2310);
  EXPECT_EQ(emergency["node"], 1);
  EXPECT_EQ(emergency["anomaly"], true);
  EXPECT_NEAR(emergency["second"].get<double>(), 0, 0.5);
  ASSERT_EQ(emergency["wheels"].size(), 2U);
  const Json& left = emergency["wheels"][0];
  EXPECT_EQ(left["wheel"], "left");
  EXPECT_EQ(left["commanded_rpm"], 30.0);
  EXPECT_LT(left["commanded_second"].get<double>(), emergency["second"].get<double>());
  EXPECT_NEAR(left["measured_rpm"].get<double>(), 30, 10);
  // It is mounted the other way round.
  EXPECT_EQ(emergency["wheels"][1]["wheel"], "right");
  EXPECT_EQ(emergency["wheels"][1]["commanded_rpm"], 20.0);

  const std::string page = directory_ + "/page.html";
  const std::string table = directory_ + "/table.csv";
  const Result text = Motorctl({"report", folder, "--html", page, "--csv", table});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(Contains(text.out, "! emergency of node 1: 0x2310 Continuous over current"))
      << text.out;
  EXPECT_TRUE(Contains(text.out, "last command: left 30.0 rpm")) << text.out;
  EXPECT_TRUE(Contains(text.out, "left: error code 0x2310")) << text.out;
  EXPECT_TRUE(Contains(Text(page), "emergency of node 1: 0x2310"));
  EXPECT_TRUE(Contains(Text(table), ",left,1,1,30.00,"));
}

// Set-ups, restarts and ends that are in order are not anomalies. What is late is the machine's.
TEST_F(RecordReportTest, FindsNothingWrongInAWholeLifeOfAVehicle) {
  const sim::SimulatedDrive drive(Options("zl"));
  Process recorder(Recording({"--vehicle", vehicle_}));
  AwaitStart(recorder);
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
  ASSERT_EQ(Motorctl({"jog", "1", "--make", "zl", "--rpm", "30", "--seconds", "3", "--yes"}).status,
            0);
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
  ASSERT_EQ(Motorctl({"stop", "1", "--make", "zl"}).status, 0);
  const Result now = Motorctl({"record", "--now"});
  ASSERT_EQ(now.status, 0) << now.err;

  const Result report = Motorctl({"report", Folders()[0], "--json"});
  ASSERT_EQ(report.status, 0) << report.err;
  const std::set<std::string> late = {"sdo_late", "sdo_unanswered", "pdo_missing", "bus_silent"};
  for (const Json& finding : EventsOf(report, "finding")) {
    if (!finding["anomaly"] || late.count(finding["kind"]) > 0) continue;
    ADD_FAILURE() << finding;
  }
  const std::vector<Json> wheels = EventsOf(report, "wheel");
  ASSERT_EQ(wheels.size(), 2U);
  EXPECT_EQ(wheels[0]["most_commanded_rpm"], 30.0);
  EXPECT_NEAR(wheels[0]["most_measured_rpm"].get<double>(), 30, 15);
}

}  // namespace
