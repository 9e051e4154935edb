// Speeds of wheels, commanded and measured: of every make, in text, table and curves.
#include "report_bench.h"
#include "speed_curve.h"

namespace motorctl {
namespace {

motor_driver::Wheel Wheel(const std::string& name, int node, int motor, bool mirrored,
                          double gear) {
  motor_driver::Wheel wheel;
  wheel.name = name;
  wheel.node = node;
  wheel.motor = motor;
  wheel.mirrored = mirrored;
  wheel.gear_ratio = gear;
  return wheel;
}

// Position reports every 20 ms for a second, of a drive that goes on by `counts` each time.
Lines Turning(const std::string& id, const std::string& before, int counts) {
  Lines lines;
  for (int i = 0; i <= 50; ++i) {
    const auto position = static_cast<std::uint32_t>(i * counts);
    char text[64];
    std::snprintf(text, sizeof(text), "%d.%03d %s#%s%02X%02X%02X%02X", i / 50, i % 50 * 20,
                  id.c_str(), before.c_str(), position & 0xFF, position >> 8 & 0xFF,
                  position >> 16 & 0xFF, position >> 24);
    lines.emplace_back(text);
  }
  return lines;
}

struct OfMake {
  const char* make;
  const char* command;  // 60 rpm
  const char* before;   // in the PDO, before the position
  int counts;           // of one turn
  int direction;
};

class ReportSpeedsTest : public testing::TestWithParam<OfMake> {};

// The units of each make, written down once more.
TEST_P(ReportSpeedsTest, KnowsWhatASpeedIsIn) {
  const OfMake& make = GetParam();
  // 60 rpm are a turn in a second.
  const std::string log =
      Merged({{make.command}, Turning("181", make.before, make.direction * make.counts / 50)});
  const Lines wheels = PartOf(TextOf(log, {make.make}), "Wheels");
  ASSERT_EQ(wheels.size(), 1U);
  const auto counts_per_cycle = make.counts / 50;
  const double rpm = 60.0 * counts_per_cycle * 50 / make.counts;  // what a whole count leaves
  char expected[200];
  std::snprintf(
      expected, sizeof(expected),
      "  node 1: 1 command, at most 60.0 rpm, the last one 60.0 rpm at +0.000; measured at "
      "most %.1f rpm, at last %.1f rpm",
      rpm, rpm);
  EXPECT_EQ(wheels[0], expected);
}

INSTANTIATE_TEST_SUITE_P(
    EveryMake, ReportSpeedsTest,
    testing::Values(OfMake{"tt", "0.0 201#3C000000", "", 32768, 1},
                    OfMake{"hls", "0.0 201#A8FDFFFF", "", 131072, -1},
                    OfMake{"amps", "0.0 601#2BF02F093C000000", "37000000", 4096, 1},
                    OfMake{"kinco", "0.0 201#00800200", "", 10000, 1}),
    [](const testing::TestParamInfo<OfMake>& param) { return std::string(param.param.make); });

TEST(ReportWheelsTest, KnowsBothMotorsOfANode) {
  const std::string log =
      LogOf({"0.0 201#3C000000C4FFFFFF", "0.0 181#0000000000000000", "0.1 181#9A01000066FEFFFF"});
  EXPECT_EQ(PartOf(TextOf(log, {"zl"}), "Wheels"),
            (Lines{
                "  node 1 motor 1: 1 command, at most 60.0 rpm, the last one 60.0 rpm at +0.000; "
                "measured at most 60.1 rpm, at last 60.1 rpm",
                "  node 1 motor 2: 1 command, at most 60.0 rpm, the last one -60.0 rpm at +0.000; "
                "measured at most 60.1 rpm, at last -60.1 rpm",
            }));
}

TEST(ReportWheelsTest, SpeaksOfTheWheelsOfTheVehicle) {
  How how{"zl"};
  how.vehicle.wheels = {Wheel("left", 1, 1, false, 2), Wheel("right", 1, 2, true, 1)};
  const std::string log =
      LogOf({"0.0 201#3C000000C4FFFFFF", "1.0 481#0000103237003700", "1.1 202#0000000000000000"});
  const std::string text = TextOf(log, how);
  EXPECT_EQ(PartOf(text, "What happened"),
            (Lines{"     +0.000 ! right: error code 0x3210 DC link over voltage",
                   "              last command: left 30.0 rpm 1.000 s before",
                   "                            right 60.0 rpm 1.000 s before"}));
  EXPECT_EQ(
      PartOf(text, "Wheels"),
      (Lines{"  left, node 1 motor 1: 1 command, at most 30.0 rpm, the last one 30.0 rpm at "
             "-1.000",
             "  right, node 1 motor 2: 1 command, at most 60.0 rpm, the last one 60.0 rpm at "
             "-1.000",
             "  node 2 motor 1: 1 command, at most 0.0 rpm, the last one 0.0 rpm at +0.100",
             "  node 2 motor 2: 1 command, at most 0.0 rpm, the last one 0.0 rpm at +0.100"}));
}

// Of few wheels all, each time; of many all once, and then those of the node. What comes at once is
// told once.
TEST(ReportWheelsTest, TellsLastCommandsWhereTheyHelp) {
  Lines frames = {"0.0 201#3C000000", "0.1 202#3D000000", "1.0 081#1023010000000000",
                  "1.04 081#1123010000000000", "2.0 082#1023010000000000"};
  const auto commands = [](const Lines& lines) {
    Lines told;
    for (const std::string& line : Happened(LogOf(lines), {"tt"})) {
      if (line.find('!') == std::string::npos) told.push_back(line.substr(14));
    }
    return told;
  };
  EXPECT_EQ(commands(frames), (Lines{"last command: node 1 60.0 rpm 1.000 s before",
                                     "              node 2 61.0 rpm 0.900 s before",
                                     "last command: node 1 60.0 rpm 2.000 s before",
                                     "              node 2 61.0 rpm 1.900 s before"}));
  frames.insert(frames.begin(), "0.0 203#3E000000");
  EXPECT_EQ(commands(frames), (Lines{"last command: node 1 60.0 rpm 1.000 s before",
                                     "              node 2 61.0 rpm 0.900 s before",
                                     "              node 3 62.0 rpm 1.000 s before",
                                     "last command: node 2 61.0 rpm 1.900 s before"}));
}

TEST(ReportWheelsTest, TakesTargetsThatAreWritten) {
  // In words of two bytes and of four; other objects are none.
  EXPECT_EQ(PartOf(TextOf(LogOf({"0.0 601#2BF02F09C4FF0000", "0.1 601#2BF02F0805000000",
                                 "0.2 181#0000000000000000"}),
                          {"amps"}),
                   "Wheels"),
            (Lines{"  node 1: 1 command, at most 60.0 rpm, the last one -60.0 rpm at +0.000"}));
  EXPECT_EQ(
      PartOf(TextOf(LogOf({"0.0 201#3C000000", "0.1 601#23FF600000000000"}), {"tt"}), "Wheels"),
      (Lines{"  node 1: 2 commands, at most 60.0 rpm, the last one 0.0 rpm at +0.100"}));
}

// A drive that restarts counts from zero again: that is not a speed.
TEST(ReportWheelsTest, BeginsAnewAfterABootUpAndAfterAGap) {
  const std::string log =
      LogOf({"0.0 181#00001000", "0.1 181#00101000", "0.15 701#00", "0.2 181#00000000",
             "0.3 181#00000000", "5.0 181#00000001", "5.1 181#00000001"});
  EXPECT_EQ(PartOf(TextOf(log, {"tt"}), "Wheels"),
            (Lines{"  node 1: no command; measured at most 75.0 rpm, at last 0.0 rpm"}));
}

TEST(ReportCsvTest, HasARowForEveryCommandAndEveryMeasuredSpeed) {
  const std::string log =
      "(1700000000.000000) can0 701#05 R\n"
      "(1700000000.100000) can0 481#00003700 R\n"
      "(1700000000.200000) can0 181#00000000 R\n"
      "(1700000000.250000) can0 201#A8FDFFFF T\n"
      "(1700000000.300000) can0 181#80CDFFFF R\n"
      "(1700000000.400000) can0 081#1023010000000000 R\n"
      "(1700000000.500000) can0 201#00000000 T\n";
  How how{"hls"};
  how.vehicle.wheels = {Wheel("a, \"b\"", 1, 1, false, 1)};
  std::string csv;
  WithReportOf(log, how, [&](const ReportOf& of) {
    WriteReportCsv(of, [&](const std::string& rows) { csv += rows; });
  });
  EXPECT_EQ(
      csv,
      "second,time,wheel,node,motor,commanded_rpm,measured_rpm,nmt_state,drive_state\n"
      "-0.150000,1700000000.250000,\"a, \"\"b\"\"\",1,1,60.00,,operational,Operation enabled\n"
      "-0.100000,1700000000.300000,\"a, \"\"b\"\"\",1,1,60.00,59.18,operational,Operation "
      "enabled\n"
      "0.100000,1700000000.500000,\"a, \"\"b\"\"\",1,1,0.00,59.18,operational,Operation "
      "enabled\n");
}

// A table may be opened by a program that works them out.
TEST(ReportCsvTest, HasNoFormulas) {
  const auto cell = [](const std::string& name) {
    How how{"tt"};
    how.vehicle.wheels = {Wheel(name, 1, 1, false, 1)};
    std::string csv;
    WithReportOf(LogOf({"0.0 201#3C000000"}), how, [&](const ReportOf& of) {
      WriteReportCsv(of, [&](const std::string& rows) { csv += rows; });
    });
    const std::string row = Split(csv).at(1);
    const std::string end = ",1,1,60.00,,,";
    const std::size_t begin = std::string("0.000000,,").size();
    return row.substr(begin, row.find(end) - begin);
  };
  EXPECT_EQ(cell("=1+1"), "'=1+1");
  EXPECT_EQ(cell("@SUM(1,1)"), "\"'@SUM(1,1)\"");
  EXPECT_EQ(cell("+cmd"), "'+cmd");
  EXPECT_EQ(cell("-2+3"), "'-2+3");
  EXPECT_EQ(cell("-inf"), "'-inf");
  EXPECT_EQ(cell("-2.5"), "-2.5");
  EXPECT_EQ(cell("+1"), "+1");
  EXPECT_EQ(cell("left=1"), "left=1");
}

TEST(SpeedCurveTest, KeepsWhatStandsOutOfEachSliceAndAllNearTheMoment) {
  constexpr std::int64_t kMillisecond = 1'000'000;
  constexpr std::int64_t kEnd = 600'000 * kMillisecond;
  SpeedCurve curve(0, kEnd, 300'000 * kMillisecond, false);
  for (std::int64_t at = 0; at < 600'000; at += 10) {
    curve.Add(at * kMillisecond, at == 100'010 ? 99 : at == 500'500 ? -99 : 1);
  }
  const std::vector<CurvePoint>& points = curve.Finish();
  EXPECT_LT(points.size(), 2300U);
  const auto holds = [&](std::int64_t at, double value) {
    return std::any_of(points.begin(), points.end(), [&](const CurvePoint& point) {
      return point.nanoseconds == at * kMillisecond && point.value == value;
    });
  };
  EXPECT_TRUE(holds(100'010, 99));
  EXPECT_TRUE(holds(500'500, -99));
  for (std::int64_t at = 298'500; at <= 301'500; at += 10) EXPECT_TRUE(holds(at, 1)) << at;
  EXPECT_TRUE(std::is_sorted(points.begin(), points.end(),
                             [](const CurvePoint& left, const CurvePoint& right) {
                               return left.nanoseconds < right.nanoseconds;
                             }));
}

TEST(SpeedCurveTest, KeepsTheBeginningOfEachStep) {
  SpeedCurve curve(0, 600'000'000'000, 0, true);
  for (std::int64_t second = 10; second < 600; ++second) {
    curve.Add(second * 1'000'000'000, second < 100 ? 5 : 7);
  }
  const std::vector<CurvePoint>& points = curve.Finish();
  ASSERT_EQ(points.size(), 2U);
  EXPECT_EQ(points[0].nanoseconds, 10'000'000'000);
  EXPECT_EQ(points[1].nanoseconds, 100'000'000'000);
  EXPECT_EQ(points[1].value, 7);
}

}  // namespace
}  // namespace motorctl
