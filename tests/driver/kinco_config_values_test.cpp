// What the configuration file of the Kinco drive says, and the file of the package.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "kinco_config_fixture.h"
#include "kinco_fixture.h"
#include "log_sources.h"
#include "output_capture.h"

namespace {

TEST_F(KincoConfigTest, AFreshDriveKnowsNothing) {
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380), kUnknownError);
  EXPECT_EQ(driver_.GetErrorCodeInfo(0), kUnknownError);
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x42), (ErrorCodeInfo{0x42, "unknown"}));
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0xFF), (ErrorCodeInfo{0xFF, "unknown"}));
  EXPECT_EQ(Wait(), WaitOf(1000));
}

TEST_F(KincoConfigTest, LoadsTheFourSectionsAndIgnoresTheRest) {
  ExpectLoads(kWholeFile,
              "[INFO] Loaded 2 error codes\n"
              "[INFO] Loaded 3 status codes\n"
              "[INFO] Loaded 1 high status codes\n"
              "[INFO] emergency_reset_wait: 1500ms\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380), (ErrorCodeInfo{12, "Encoder: no signal"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x2310), (ErrorCodeInfo{7, "Over current"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(2310), kUnknownError) << "codes are hexadecimal";
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x37), (ErrorCodeInfo{0x37, "Operation enabled"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x50), (ErrorCodeInfo{0x50, "Emergency stop"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x18), (ErrorCodeInfo{0x18, "Fault"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x04), (ErrorCodeInfo{0x04, "unknown"}));
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0x04), (ErrorCodeInfo{0x04, "Target reached"}));
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0x37), (ErrorCodeInfo{0x37, "unknown"}));
  EXPECT_EQ(Wait(), WaitOf(1500));
}

TEST_F(KincoConfigTest, EverySectionIsOptional) {
  ExpectLoads("emergency_reset_wait: 250\n", "[INFO] emergency_reset_wait: 250ms\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380), kUnknownError);
  EXPECT_EQ(Wait(), WaitOf(250));
  ExpectLoads("motor_status: [{code: 1, msg: One}]", "[INFO] Loaded 1 high status codes\n");
  ExpectLoads("driver_status: [{code: 1, msg: One}]", "[INFO] Loaded 1 status codes\n");
  ExpectLoads("err_code: [{code: 1, err_code: 1, msg: One}]", "[INFO] Loaded 1 error codes\n");
  ExpectLoads("other: 1\n", "");
  ExpectLoads("", "");
  ExpectLoads("# a comment alone\n", "");
  ExpectLoads("--- \n", "");
  EXPECT_EQ(Wait(), WaitOf(250)) << "a file without the key changes nothing";
}

TEST_F(KincoConfigTest, LoadConfigSaysLess) {
  const TextFile file("emergency_reset_wait: 250\n");
  support::OutputCapture capture;
  EXPECT_TRUE(driver_.LoadConfig(file.path()));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] emergency_reset_wait: 250ms\n");
  capture.Clear();
  EXPECT_FALSE(driver_.LoadConfig(""));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] driver_conf_path is empty\n");
}

TEST_F(KincoConfigTest, IsLoadedThroughTheDriveInterface) {
  const TextFile file(kWholeFile);
  DriverCommon& drive = driver_;
  EXPECT_TRUE(drive.LoadDriverConfig(file.path()));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380).code, 12U);
}

TEST_F(KincoConfigTest, LogLinesNameTheOperation) {
  const TextFile file(kWholeFile);
  LogSources sources;
  driver_.LoadDriverConfig(file.path());
  driver_.LoadDriverConfig("");
  driver_.LoadDriverConfig("/nowhere");
  const std::string source = "./src/driver/kinco_driver.cpp ";
  const std::vector<std::string> expected = {
      source + "LoadDriverConfig", source + "LoadConfig", source + "LoadConfig",
      source + "LoadConfig",       source + "LoadConfig", source + "LoadDriverConfig",
      source + "LoadDriverConfig", source + "LoadConfig", source + "LoadDriverConfig",
      source + "LoadConfig"};
  EXPECT_EQ(sources.Heard(), expected);
}

// --- Values --------------------------------------------------------------------------------------

TEST_F(KincoConfigTest, CodesAreReadAsHexadecimalText) {
  ExpectLoads(
      "err_code:\n"
      "  - {code: 0X7381, err_code: 1, msg: a}\n"
      "  - {code: \"0x7382\", err_code: 2, msg: b}\n"
      "  - {code: \"  7383 \", err_code: \" 3\", msg: c}\n"
      "  - {code: 73ab, err_code: 4, msg: d}\n"
      "  - {code: 7385h, err_code: 5x, msg: e}\n"
      "  - {code: 73.86, err_code: 6.9, msg: f}\n"
      "  - {code: 007387, err_code: 0010, msg: g}\n",
      "[INFO] Loaded 7 error codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7381), (ErrorCodeInfo{1, "a"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7382), (ErrorCodeInfo{2, "b"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7383), (ErrorCodeInfo{3, "c"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x73AB), (ErrorCodeInfo{4, "d"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7385), (ErrorCodeInfo{5, "e"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x0073), (ErrorCodeInfo{6, "f"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7387), (ErrorCodeInfo{10, "g"}));
}

TEST_F(KincoConfigTest, CodesAreCutToTheirTable) {
  ExpectLoads(
      "err_code: [{code: 0x10023, err_code: 4294967297, msg: a},"
      " {code: ffffffffffffffff, err_code: 4294967295, msg: b},"
      " {code: -2, err_code: -1, msg: c}]\n"
      "driver_status: [{code: 0x1FF, msg: d}]\n"
      "motor_status: [{code: 0xABCD, msg: e}]\n",
      "[INFO] Loaded 3 error codes\n"
      "[INFO] Loaded 1 status codes\n"
      "[INFO] Loaded 1 high status codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x0023), (ErrorCodeInfo{1, "a"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0xFFFF), (ErrorCodeInfo{4294967295U, "b"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0xFFFE), (ErrorCodeInfo{4294967295U, "c"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0xFF), (ErrorCodeInfo{0xFF, "d"}));
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0xCD), (ErrorCodeInfo{0xCD, "e"}));
}

TEST_F(KincoConfigTest, TheLastOfEqualCodesWins) {
  ExpectLoads(
      "err_code:\n"
      "  - {code: 0x7380, err_code: 1, msg: first}\n"
      "  - {code: 7380, err_code: 2, msg: second}\n"
      "driver_status: [{code: 0x50, msg: first}, {code: 0x150, msg: second}]\n"
      "motor_status: [{code: 5, msg: first}, {code: 05, msg: second}]\n",
      "[INFO] Loaded 1 error codes\n"
      "[INFO] Loaded 1 status codes\n"
      "[INFO] Loaded 1 high status codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380), (ErrorCodeInfo{2, "second"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x50).msg, "second");
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0x05).msg, "second");
}

TEST_F(KincoConfigTest, ASecondFileIsMergedIntoTheFirst) {
  EXPECT_TRUE(Load(kWholeFile).result);
  ExpectLoads(
      "err_code: [{code: 0x7380, err_code: 13, msg: New}, {code: 1, err_code: 1, msg: One}]\n"
      "driver_status: [{code: 0x37, msg: New}]\n"
      "motor_status: []\n",
      "[INFO] Loaded 3 error codes\n"
      "[INFO] Loaded 3 status codes\n"
      "[INFO] Loaded 1 high status codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x7380), (ErrorCodeInfo{13, "New"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x2310), (ErrorCodeInfo{7, "Over current"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x0001), (ErrorCodeInfo{1, "One"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x37).msg, "New");
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(0x18).msg, "Fault");
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(0x04).msg, "Target reached");
  EXPECT_EQ(Wait(), WaitOf(1500)) << "kept from the first file";
}

TEST_F(KincoConfigTest, EveryObjectHasItsOwnTables) {
  EXPECT_TRUE(Load(kWholeFile).result);
  KincoDriver other("can0", 10000);
  EXPECT_EQ(other.GetErrorCodeInfo(0x7380), kUnknownError);
}

TEST_F(KincoConfigTest, TextsAreKeptAsTheyStand) {
  EXPECT_TRUE(Load("err_code:\n"
                   "  - {code: 1, err_code: 1, msg: \"{} {0} %s\"}\n"
                   "  - {code: 2, err_code: 1, msg: \"\"}\n"
                   "  - {code: 3, err_code: 1, msg: 42}\n"
                   "  - {code: 4, err_code: 1, msg: \"Überstrom\\nline\"}\n")
                  .result);
  EXPECT_EQ(driver_.GetErrorCodeInfo(1).msg, "{} {0} %s");
  EXPECT_EQ(driver_.GetErrorCodeInfo(2).msg, "");
  EXPECT_EQ(driver_.GetErrorCodeInfo(3).msg, "42");
  EXPECT_EQ(driver_.GetErrorCodeInfo(4).msg, "Überstrom\nline");
}

TEST_F(KincoConfigTest, TheWaitIsAnySignedInteger) {
  ExpectLoads("emergency_reset_wait: 0", "[INFO] emergency_reset_wait: 0ms\n");
  ExpectLoads("emergency_reset_wait: -5", "[INFO] emergency_reset_wait: -5ms\n");
  ExpectLoads("emergency_reset_wait: 2147483647", "[INFO] emergency_reset_wait: 2147483647ms\n");
  ExpectLoads("emergency_reset_wait: -2147483648", "[INFO] emergency_reset_wait: -2147483648ms\n");
}

// --- The file of the package ---------------------------------------------------------------------

TEST_F(KincoConfigTest, ThePackagedFileLoadsAndNamesEveryOfItsCodes) {
  EXPECT_TRUE(LoadPath(PACKAGED_CONFIG).result);
  std::ifstream file(PACKAGED_CONFIG);
  std::string section;
  int codes[3] = {};
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[line.find_first_not_of(' ')] == '#') {
      continue;
    }
    if (line[0] != ' ') {
      section = line.substr(0, line.find(':'));
      continue;
    }
    SCOPED_TRACE(line);
    const std::size_t code_at = line.find("code: ");
    const std::size_t text_at = line.find("msg: ");
    ASSERT_NE(code_at, std::string::npos);
    ASSERT_NE(text_at, std::string::npos);
    const unsigned long code = std::stoul(line.substr(code_at + 6), nullptr, 16);
    std::string text = line.substr(text_at + 5, line.rfind('}') - text_at - 5);
    if (text.front() == '"') {
      text = text.substr(1, text.size() - 2);
    }
    EXPECT_FALSE(text.empty());
    if (section == "err_code") {
      ++codes[0];
      EXPECT_LE(code, 0xFFFFU);
      const std::size_t event_at = line.find("err_code: ");
      ASSERT_NE(event_at, std::string::npos);
      EXPECT_EQ(driver_.GetErrorCodeInfo(static_cast<std::uint16_t>(code)),
                (ErrorCodeInfo{static_cast<std::uint32_t>(std::stoul(line.substr(event_at + 10))),
                               text}));
    } else if (section == "driver_status") {
      ++codes[1];
      EXPECT_LE(code, 0xFFU);
      EXPECT_EQ(driver_.GetDriverStatusCodeInfo(static_cast<std::uint8_t>(code)).msg, text);
    } else {
      ++codes[2];
      EXPECT_EQ(section, "motor_status");
      EXPECT_LE(code, 0xFFU);
      EXPECT_EQ(driver_.GetMotorStatusCodeInfo(static_cast<std::uint8_t>(code)).msg, text);
    }
  }
  EXPECT_GE(codes[0], 100);
  EXPECT_GE(codes[1], 8);
  EXPECT_GE(codes[2], 8);
  EXPECT_EQ(driver_.GetErrorCodeInfo(0x2310).msg, "Continuous over current");
  EXPECT_EQ(Wait(), WaitOf(1000));
}

}  // namespace
