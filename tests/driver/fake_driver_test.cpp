// FakeDriver on any machine, CAN or not. The logger is made once per process, so every case runs in
// a child of its own, with its own log level. This process never logs.
#include <fake_driver.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>

#include "output_capture.h"
#include "processes.h"

namespace {

constexpr auto kNoInterface = "nocan0";
constexpr auto kConstructed = "constructed\n";
constexpr auto kUsed = "used\n";

// What `use` writes to standard output, the log at `level` included. What constructor and
// destructor say is cut off: it depends on the kernel.
std::string OutputOf(const char* level, const std::function<void(FakeDriver&)>& use) {
  const support::ProcessResult child = support::RunForked([&] {
    setenv("SPDLOG_STDOUT", "true", 1);
    setenv("SPDLOG_SYSTEMD", "false", 1);
    setenv("SPDLOG_LEVEL", level, 1);
    FakeDriver driver(kNoInterface);
    std::fputs(kConstructed, stdout);
    use(driver);
    std::fputs(kUsed, stdout);
  });
  EXPECT_EQ(child.exit_status, 0) << child.err;
  const std::string out = support::WithoutNumbers(child.out);
  const std::size_t begin = out.find(kConstructed) + std::string(kConstructed).size();
  return out.substr(begin, out.find(kUsed) - begin);
}

// The child reports results on standard output: gtest's own failures would be lost with it.
template <typename... Values>
void Print(const Values&... values) {
  std::ostringstream text;
  ((text << values << ' '), ...);
  std::puts(text.str().c_str());
}

void UseEverythingButTheSpeeds(DriverCommon& driver) {
  Print(driver.GetTpdo0Period(1));
  Print(driver.Init(1, 2, 20));
  Print(driver.ResetNode(3));
  driver.StartAllNode();
  Print(driver.ActiveNode(4));
  driver.StartNode(255);
  Print(driver.SetSpeedMode(6));
  Print(driver.CheckStatus(7));
  Print(driver.EnableSpeedModeAndPdoMode(8, 20));
  Print(driver.GetTpdo0Period(9));
  Print(driver.EnableSpeedModeAndPdoMode(8, 65535));
  Print(driver.GetTpdo0Period(0));
  Print(driver.GetNumberOfPulsesPerRevolution());
  Print(driver.SaveAllParams(10));
}

constexpr auto kEverythingButTheSpeeds =
    "[INFO] get tpdo0 period node:1\n0 \n"
    "[INFO] init node:1\n1 \n"
    "[INFO] reset node:3\n1 \n"
    "[INFO] start all node\n"
    "[INFO] active node:4\n1 \n"
    "[INFO] start node:255\n"
    "[INFO] set speed mode node:6\n0 \n"
    "[INFO] check status node:7\n1 \n"
    "[INFO] enable speed mode and pdo mode node:8 period:20\n0 \n"
    "[INFO] get tpdo0 period node:9\n20 \n"
    "[INFO] enable speed mode and pdo mode node:8 period:65535\n0 \n"
    "[INFO] get tpdo0 period node:0\n65535 \n"
    "[INFO] get encoder total count\n131072 \n"
    "1 \n";

TEST(FakeDriverTest, TellsEveryOperationAndSucceeds) {
  EXPECT_EQ(OutputOf("info", UseEverythingButTheSpeeds), kEverythingButTheSpeeds);
  EXPECT_EQ(OutputOf("debug", [](FakeDriver& driver) { UseEverythingButTheSpeeds(driver); }),
            kEverythingButTheSpeeds);
}

TEST(FakeDriverTest, TellsNothingAboveItsLevel) {
  EXPECT_EQ(OutputOf("warning", UseEverythingButTheSpeeds),
            "0 \n1 \n1 \n1 \n0 \n1 \n0 \n20 \n0 \n65535 \n131072 \n1 \n");
}

TEST(FakeDriverTest, HasParametersThatAreAlwaysWrittenAndNeverRead) {
  EXPECT_EQ(OutputOf("info",
                     [](FakeDriver& driver) {
                       Print(driver.WriteParam(1, 0x2300, 0x23, 4294967295));
                       std::uint32_t value = 77;
                       Print(driver.ReadParam(255, 65535, &value));
                       Print(value);
                       Print(driver.ReadParam(2, 1, nullptr));
                     }),
            "[INFO] write param node:1 fn_addr:8960 size_code:35 value:4294967295\n0 \n"
            "[INFO] read param node:255 fn_addr:65535\n0 \n77 \n"
            "[INFO] read param node:2 fn_addr:1\n0 \n");
}

struct Motor {
  double rpm = -1;
  int counts = -1;
};

void UseTheSpeeds(DriverCommon& driver) {
  Print(driver.SetSpeed(1, -60));
  Print(driver.SetSpeed(2, 60, -30));
  Print(driver.SetSpeed(255, 1, 2, 3, -2147483647 - 1));
  std::uint8_t node = 0;
  Motor m[4];
  for (const int entry : {0, 1, 2, 3, 4, 255}) {
    node = static_cast<std::uint8_t>(entry);
    m[0] = {};
    const bool result = driver.GetSpeed(node, m[0].rpm, m[0].counts);
    Print(result, int{node}, m[0].rpm, m[0].counts);
  }
  for (const int entry : {0, 1, 3, 2, 255}) {
    node = static_cast<std::uint8_t>(entry);
    m[0] = m[1] = {};
    const bool result = driver.GetSpeed(node, m[0].rpm, m[0].counts, m[1].rpm, m[1].counts);
    Print(result, int{node}, m[0].rpm, m[0].counts, m[1].rpm, m[1].counts);
  }
  for (const int entry : {0, 3}) {
    node = static_cast<std::uint8_t>(entry);
    m[0] = m[1] = m[2] = m[3] = {};
    const bool result = driver.GetSpeed(node, m[0].rpm, m[0].counts, m[1].rpm, m[1].counts,
                                        m[2].rpm, m[2].counts, m[3].rpm, m[3].counts);
    Print(result, int{node}, m[0].rpm, m[0].counts, m[1].rpm, m[1].counts, m[2].rpm, m[2].counts,
          m[3].rpm, m[3].counts);
  }
}

constexpr auto kSpeeds =
    "[DEBUG] set speed node:1 rpm:-60\n1 \n"
    "[DEBUG] set speed node:2 rpm_l:60 rpm_r:-30\n1 \n"
    "[DEBUG] set speed node:255 rpm_l_front:1 rpm_r_front:2 rpm_l_rear:3 rpm_r_rear:-2147483648\n"
    "1 \n"
    "[DEBUG] get speed node:1 rpm:100\n1 1 100 1000 \n"
    "[DEBUG] get speed node:2 rpm:100\n1 2 100 1000 \n"
    "[DEBUG] get speed node:3 rpm:100\n1 3 100 1000 \n"
    "[DEBUG] get speed node:4 rpm:100\n1 4 100 1000 \n"
    "[DEBUG] get speed node:1 rpm:100\n1 1 100 1000 \n"
    "[DEBUG] get speed node:4 rpm:100\n1 4 100 1000 \n"
    "[DEBUG] get speed node:1 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000\n"
    "1 1 100 1000 200 2000 \n"
    "[DEBUG] get speed node:3 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000\n"
    "1 3 100 1000 200 2000 \n"
    "[DEBUG] get speed node:3 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000\n"
    "1 3 100 1000 200 2000 \n"
    "[DEBUG] get speed node:1 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000\n"
    "1 1 100 1000 200 2000 \n"
    "[DEBUG] get speed node:3 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000\n"
    "1 3 100 1000 200 2000 \n"
    "[DEBUG] get speed node:1 rpm_l_front:100 encoder_l_front:1000 rpm_r_front:200 "
    "encoder_r_front:2000 rpm_l_rear:300 encoder_l_rear:3000 rpm_r_rear:400 encoder_r_rear:4000\n"
    "1 1 100 1000 200 2000 300 3000 400 4000 \n"
    "[DEBUG] get speed node:1 rpm_l_front:100 encoder_l_front:1000 rpm_r_front:200 "
    "encoder_r_front:2000 rpm_l_rear:300 encoder_l_rear:3000 rpm_r_rear:400 encoder_r_rear:4000\n"
    "1 1 100 1000 200 2000 300 3000 400 4000 \n";

TEST(FakeDriverTest, TellsSpeedsAtDebug) {
  EXPECT_EQ(OutputOf("debug", [](FakeDriver& driver) { UseTheSpeeds(driver); }), kSpeeds);
}

TEST(FakeDriverTest, TellsNoSpeedsAtInfo) {
  std::string results;
  for (const std::string& line : support::Lines(kSpeeds)) {
    if (line.front() != '[') {
      results += line + "\n";
    }
  }
  EXPECT_EQ(OutputOf("info", UseTheSpeeds), results);
}

TEST(FakeDriverTest, OffersEverySpeedThroughItsOwnType) {
  EXPECT_EQ(OutputOf("info",
                     [](FakeDriver& driver) {
                       std::uint8_t node = 5;
                       double rpm[4] = {};
                       int counts[4] = {};
                       Print(driver.SetSpeed(1, 1), driver.SetSpeed(1, 1, 2),
                             driver.SetSpeed(1, 1, 2, 3, 4));
                       Print(driver.GetSpeed(node, rpm[0], counts[0]));
                       Print(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
                       Print(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2],
                                             counts[2], rpm[3], counts[3]));
                       Print(rpm[3]);
                       Print(driver.Init(1, 20));  // the default, which tells nothing
                     }),
            "1 1 1 \n1 \n1 \n1 \n400 \n1 \n");
}

}  // namespace
