// Recorded logs, reported word for word; bus load; what --json has.
#include "report_bench.h"

namespace motorctl {
namespace {

std::string Data(const std::string& name) { return std::string(DATA_DIRECTORY) + "/" + name; }

class RecordedReportTest : public testing::TestWithParam<const char*> {};

TEST_P(RecordedReportTest, IsWordForWord) {
  const std::string name = GetParam();
  std::string text;
  WithReport(Data(name + ".log"), {name == "plain" ? "zl" : name}, name + ".log",
             [&](const ReportOf& of) { text = ReportText(of); });
  EXPECT_EQ(text, WholeFile(Data("reports/" + name + ".txt")));
}

INSTANTIATE_TEST_SUITE_P(EveryMake, RecordedReportTest,
                         testing::Values("zl", "tt", "hls", "amps", "kinco", "plain"),
                         [](const testing::TestParamInfo<const char*>& param) {
                           return std::string(param.param);
                         });

// The same frames as candump's options write them.
TEST(RecordedReportsTest, AreWordForWordInEveryForm) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(Data("forms"))) {
    if (entry.path().extension() == ".log") names.push_back(entry.path().filename());
  }
  ASSERT_GT(names.size(), 20U);
  std::sort(names.begin(), names.end());
  std::string text;
  for (const std::string& name : names) {
    WithReport(Data("forms/" + name), {"zl"}, name,
               [&](const ReportOf& of) { text += ReportText(of) + "\n"; });
  }
  EXPECT_EQ(text, WholeFile(Data("reports/forms.txt")));
}

// Of the standard: what a controller sends, bit by bit.
unsigned BitsOf(const std::string& frame) {
  const Folder folder;
  const ReportLog log = ReadReportLog(folder.Write("log", "(1.0) can0 " + frame + "\n"), "");
  return BitsOnTheWire(log.frames.at(0));
}

TEST(BusLoadTest, CountsStuffBits) {
  // 34 zeros, the checksum among them: one more after every five.
  EXPECT_EQ(BitsOf("000#"), 47U + 6);
  // The others were worked out apart, by long division of the bits as text.
  EXPECT_EQ(BitsOf("555#"), 47U + 1);
  EXPECT_EQ(BitsOf("2AA#5555555555555555"), 111U + 0);
  EXPECT_EQ(BitsOf("000#0000000000000000"), 111U + 16);
  EXPECT_EQ(BitsOf("7FF#FFFFFFFFFFFFFFFF"), 111U + 15);
  EXPECT_EQ(BitsOf("555#F0F0F0"), 71U + 3);
  EXPECT_EQ(BitsOf("601#2B4060000F000000"), 111U + 11);
  EXPECT_EQ(BitsOf("00000000#"), 67U + 7);
  EXPECT_EQ(BitsOf("12345678#010203"), 91U + 4);
  EXPECT_EQ(BitsOf("701#R"), 47U + 2);
  EXPECT_EQ(BitsOf("701#R"), BitsOf("701#R8"));
}

TEST(BusLoadTest, IsToldInPercentWhereTheBitRateIsKnown) {
  // 126 bits each, 100 frames a second.
  const std::string log = Merged({Repeated("181#0000000000000000", 0, 10001, 10)});
  How how;
  EXPECT_EQ(PartOf(TextOf(log, how), "Bus")[0].substr(0, 48),
            "  100 frames/s; load 12.6 kbit/s on average, 12.");
  how.bit_rate = 125'000;
  EXPECT_EQ(
      PartOf(TextOf(log, how), "Bus"),
      (Lines{"  100 frames/s; load 10.1 % on average, 10.1 % in the busiest 0.1 s, of 125 kbit/s "
             "(--bit-rate); stuff bits counted",
             "  no error frame"}));
  const auto bus = EventsOf(JsonOf(log, how), "bus");
  ASSERT_EQ(bus.size(), 1U);
  EXPECT_EQ(bus[0]["frames"], 1001);
  EXPECT_EQ(bus[0]["bits"], 1001 * 126);
  EXPECT_EQ(bus[0]["load_percent"], 10.09);
  EXPECT_EQ(bus[0]["slice_ms"], 100.0);
}

// What is missing is noticed later than it should have come.
TEST(ReportJsonTest, HasFindingsInOrder) {
  const auto findings = EventsOf(JsonOf(Merged({Repeated("701#05", 0, 2000, 100),
                                                Repeated("123#", 0, 4000, 10),
                                                {"2.2 082#1023010000000000"}})),
                                 "finding");
  ASSERT_EQ(findings.size(), 3U);
  EXPECT_EQ(findings[1]["kind"], "heartbeat_missing");
  EXPECT_EQ(findings[2]["kind"], "emergency");
}

TEST(ReportJsonTest, HasWhatTheTextHas) {
  const std::string log =
      "(1700000000.000000) can0 701#05 R\n"
      "(1700000000.250000) can0 201#3C000000 T\n"
      "(1700000000.400000) can0 081#1023010000000000 R\n"
      "(1700000000.500000) can0 601#4041600000000000 T\n"
      "(1700000000.510000) can0 581#4B41600027000000 R\n"
      "(1700000000.600000) can0 70\n";
  const auto objects = JsonOf(log, {"tt"});
  const auto logs = EventsOf(objects, "log");
  ASSERT_EQ(logs.size(), 1U);
  EXPECT_EQ(
      logs[0].dump(),
      R"({"anomalies":1,"begin":1700000000.0,"clock":"utc","command":"report","end":1700000000.51,)"
      R"("event":"log","frames":5,"interface":"can0","make":"tt","make_from":"--make",)"
      R"("path":"bus.log","trigger":null,"unlisted":0,"zero":1700000000.4,)"
      R"("zero_is":"first_anomaly"})");
  const auto findings = EventsOf(objects, "finding");
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0]["kind"], "nmt_state");
  EXPECT_EQ(findings[0]["second"], -0.4);
  EXPECT_EQ(findings[0]["wheels"], nlohmann::json::array());
  EXPECT_EQ(
      findings[1].dump(),
      R"({"anomaly":true,"command":"report","count":1,"details":{"error_code":8976,"error_text":)"
      R"("Continuous over current"},"duration_ms":null,"event":"finding","kind":"emergency",)"
      R"("last_second":0.0,"line":3,"motor":null,"node":1,"second":0.0,"text":"emergency of node 1: )"
      R"(0x2310 Continuous over current; error register 0x01 generic","time":1700000000.4,"wheels":)"
      R"([{"commanded_rpm":60.0,"commanded_second":-0.15,"measured_rpm":null,"wheel":"node 1"}]})");
  const auto nodes = EventsOf(objects, "node");
  ASSERT_EQ(nodes.size(), 1U);
  EXPECT_EQ(
      nodes[0].dump(),
      R"({"boot_ups":0,"command":"report","drive_states":["Operation enabled"],"emergencies":1,)"
      R"("event":"node","frames":3,"heard":true,"nmt_state":"operational","node":1,)"
      R"("sdo_aborts":0,"sdo_late":0,"sdo_requests":1,"sdo_slowest_ms":10.0,)"
      R"("sdo_unanswered":0,"this_machine":false})");
  const auto wheels = EventsOf(objects, "wheel");
  ASSERT_EQ(wheels.size(), 1U);
  EXPECT_EQ(wheels[0].dump(),
            R"({"command":"report","commands":1,"event":"wheel","last_commanded_rpm":60.0,)"
            R"("last_commanded_second":-0.15,"last_measured_rpm":null,"most_commanded_rpm":60.0,)"
            R"("most_measured_rpm":null,"motor":1,"node":1,"wheel":"node 1"})");
  EXPECT_EQ(EventsOf(objects, "note").at(0)["text"],
            "line 6: no frame in it, left out: \"(1700000000.600000) can0 70\"");
}

}  // namespace
}  // namespace motorctl
