// Configuration files of the Kinco drive that are wrong.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <stdexcept>
#include <string>

#include "kinco_config_fixture.h"
#include "output_capture.h"
#include "processes.h"

namespace {

TEST_F(KincoConfigTest, AnEmptyPathIsAnError) {
  const Loaded loaded = LoadPath("");
  EXPECT_FALSE(loaded.result);
  EXPECT_EQ(loaded.out, "[INFO] LoadDriverConfig from \n[ERROR] driver_conf_path is empty\n");
}

TEST_F(KincoConfigTest, AMissingFileIsAnError) {
  const Loaded loaded = LoadPath("/nowhere/kinco.yaml");
  EXPECT_FALSE(loaded.result);
  EXPECT_EQ(loaded.out, FailureOf("/nowhere/kinco.yaml", "bad file: /nowhere/kinco.yaml"));
}

TEST_F(KincoConfigTest, BracesInAPathArePrintedAsTheyStand) {
  const Loaded loaded = LoadPath("/nowhere/{}/{0:x}/%s");
  EXPECT_FALSE(loaded.result);
  EXPECT_EQ(loaded.out, FailureOf("/nowhere/{}/{0:x}/%s", "bad file: /nowhere/{}/{0:x}/%s"));
}

TEST_F(KincoConfigTest, ADirectoryIsAnError) {
  const Loaded loaded = LoadPath("/tmp");
  EXPECT_FALSE(loaded.result);
  EXPECT_EQ(loaded.out, FailureOf("/tmp", "is a directory"));
}

// Forked: yaml-cpp leaks its buffer here, which is not to be mistaken for a leak of the library.
TEST_F(KincoConfigTest, AFileThatOpensButCannotBeReadIsAnError) {
  const support::ProcessResult result =
      support::RunForked([this] { EXPECT_FALSE(driver_.LoadConfig("/proc/self/mem")); });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(WithoutNumbers(result.out),
            "[ERROR] Failed to load YAML file: /proc/self/mem, error: basic_filebuf::underflow "
            "error reading the file: Input/output error\n");
}

TEST_F(KincoConfigTest, ASyntaxErrorIsAnError) {
  ExpectFails("err_code: [\n",
              "yaml-cpp: error at line 2, column 1: end of sequence flow not found");
  ExpectFails("a: b: c\n", "yaml-cpp: error at line 1, column 5: illegal map value");
  ExpectFails("err_code: [{code: 1, err_code: 1, msg: One}]\n}\n",
              "yaml-cpp: error at line 2, column 1: illegal flow end");
  EXPECT_EQ(driver_.GetErrorCodeInfo(1), kUnknownError) << "a file is read as a whole first";
}

TEST_F(KincoConfigTest, ARootThatIsNoMappingHasNoSections) {
  ExpectFails("hello\n",
              "yaml-cpp: error at line 1, column 1: operator[] call on a scalar (key: "
              "\"err_code\")");
  ExpectLoads("- err_code\n- driver_status\n", "");
}

TEST_F(KincoConfigTest, AScalarOrNullInPlaceOfASequenceHasNoEntries) {
  ExpectLoads("err_code: 5\ndriver_status: text\nmotor_status: 1.5\n",
              "[INFO] Loaded 0 error codes\n"
              "[INFO] Loaded 0 status codes\n"
              "[INFO] Loaded 0 high status codes\n");
  ExpectLoads("err_code:\ndriver_status: ~\nmotor_status: null\n",
              "[INFO] Loaded 0 error codes\n"
              "[INFO] Loaded 0 status codes\n"
              "[INFO] Loaded 0 high status codes\n");
  ExpectLoads("err_code: {}\ndriver_status: {}\nmotor_status: {}\n",
              "[INFO] Loaded 0 error codes\n"
              "[INFO] Loaded 0 status codes\n"
              "[INFO] Loaded 0 high status codes\n");
}

TEST_F(KincoConfigTest, AMappingInPlaceOfASequenceIsAnError) {
  const std::string error =
      "invalid node; this may result from using a map iterator as a sequence iterator, or "
      "vice-versa";
  ExpectFails("err_code: {code: 1, err_code: 1, msg: x}\n", error);
  ExpectFails("driver_status: {code: 1, msg: x}\n", error);
  ExpectFails("motor_status: {code: 1, msg: x}\n", error);
}

TEST_F(KincoConfigTest, AnEntryThatIsNoMappingIsAnError) {
  ExpectFails("err_code: [1]\n",
              "yaml-cpp: error at line 1, column 12: operator[] call on a scalar (key: \"code\")");
  ExpectFails("driver_status: [~]\n", "invalid node; first invalid key: \"code\"");
  ExpectFails("motor_status: [[1]]\n", "invalid node; first invalid key: \"code\"");
}

TEST_F(KincoConfigTest, AnEntryWithAMissingKeyIsAnError) {
  const std::string missing_code = "invalid node; first invalid key: \"code\"";
  const std::string missing_event = "invalid node; first invalid key: \"err_code\"";
  const std::string missing_text = "invalid node; first invalid key: \"msg\"";
  ExpectFails("err_code: [{err_code: 1, msg: x}]\n", missing_code);
  ExpectFails("err_code: [{code: 1, msg: x}]\n", missing_event);
  ExpectFails("err_code: [{code: 1, err_code: 1}]\n", missing_text);
  ExpectFails("driver_status: [{msg: x}]\n", missing_code);
  ExpectFails("driver_status: [{code: 1}]\n", missing_text);
  ExpectFails("motor_status: [{msg: x}]\n", missing_code);
  ExpectFails("motor_status: [{code: 1}]\n", missing_text);
  EXPECT_EQ(driver_.GetErrorCodeInfo(1), kUnknownError) << "no entry without its text";
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(1).msg, "unknown");
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(1).msg, "unknown");
}

TEST_F(KincoConfigTest, AFieldThatIsNoScalarIsAnError) {
  ExpectFails("err_code: [{code: [1], err_code: 1, msg: x}]\n",
              "yaml-cpp: error at line 1, column 19: bad conversion");
  ExpectFails("err_code: [{code: 1, err_code: {a: 1}, msg: x}]\n",
              "yaml-cpp: error at line 1, column 32: bad conversion");
  ExpectFails("motor_status: [{code: 1, msg: [1]}]\n",
              "yaml-cpp: error at line 1, column 31: bad conversion");
}

TEST_F(KincoConfigTest, AWaitThatIsNoIntegerIsAnErrorAndKeepsTheEarlierOne) {
  for (const char* wait : {"soon", "1.5", "1500ms", "[1]", "2147483648", "99999999999", "\"\""}) {
    ExpectFails("emergency_reset_wait: " + std::string(wait) + "\n",
                "yaml-cpp: error at line 1, column 23: bad conversion");
  }
  EXPECT_EQ(Wait(), WaitOf(1000));
}

TEST_F(KincoConfigTest, WhatCameBeforeAnErrorStays) {
  ExpectFails(
      "err_code: [{code: 1, err_code: 1, msg: One}]\n"
      "driver_status: [{code: 2, msg: Two}, {code: 3}, {code: 4, msg: Four}]\n"
      "motor_status: [{code: 5, msg: Five}]\n"
      "emergency_reset_wait: 250\n",
      "invalid node; first invalid key: \"msg\"", "[INFO] Loaded 1 error codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(1), (ErrorCodeInfo{1, "One"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(2).msg, "Two");
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(4).msg, "unknown");
  EXPECT_EQ(driver_.GetMotorStatusCodeInfo(5).msg, "unknown");
  EXPECT_EQ(Wait(), WaitOf(1000));
}

// A wrong number is told apart from a wrong file: it reaches the caller.
TEST_F(KincoConfigTest, ACodeThatIsNoNumberThrows) {
  for (const char* code : {"zz", "\"\"", "x10", "g1", "\"-\"", "~"}) {
    const std::string text(code);
    ExpectThrows<std::invalid_argument>("err_code: [{code: " + text + ", err_code: 1, msg: x}]\n");
    ExpectThrows<std::invalid_argument>("driver_status: [{code: " + text + ", msg: x}]\n");
    ExpectThrows<std::invalid_argument>("motor_status: [{code: " + text + ", msg: x}]\n");
  }
  for (const char* event : {"zz", "ff", "", "-"}) {
    ExpectThrows<std::invalid_argument>("err_code: [{code: 1, err_code: \"" + std::string(event) +
                                        "\", msg: x}]\n");
  }
}

TEST_F(KincoConfigTest, ANumberBeyondTheRangeThrows) {
  ExpectThrows<std::out_of_range>("err_code: [{code: 10000000000000000, err_code: 1, msg: x}]\n");
  ExpectThrows<std::out_of_range>(
      "err_code: [{code: 1, err_code: 18446744073709551616, msg: x}]\n");
  ExpectThrows<std::out_of_range>("driver_status: [{code: 0x10000000000000000, msg: x}]\n");
  ExpectThrows<std::out_of_range>("motor_status: [{code: 0x10000000000000000, msg: x}]\n");
}

TEST_F(KincoConfigTest, WhatCameBeforeAWrongNumberStays) {
  ExpectThrows<std::invalid_argument>(
      "err_code: [{code: 1, err_code: 1, msg: One}]\n"
      "driver_status: [{code: 2, msg: Two}, {code: zz, msg: Three}, {code: 4, msg: Four}]\n"
      "emergency_reset_wait: 250\n",
      "[INFO] Loaded 1 error codes\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(1), (ErrorCodeInfo{1, "One"}));
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(2).msg, "Two");
  EXPECT_EQ(driver_.GetDriverStatusCodeInfo(4).msg, "unknown");
  ExpectThrows<std::out_of_range>(
      "err_code: [{code: 6, err_code: 6, msg: Six},"
      " {code: 7, err_code: 99999999999999999999, msg: Seven},"
      " {code: 8, err_code: 8, msg: Eight}]\n");
  EXPECT_EQ(driver_.GetErrorCodeInfo(6), (ErrorCodeInfo{6, "Six"}));
  EXPECT_EQ(driver_.GetErrorCodeInfo(7), kUnknownError);
  EXPECT_EQ(driver_.GetErrorCodeInfo(8), kUnknownError);
  ExpectLoads("err_code: [{code: 9, err_code: 9, msg: Nine}]\n", "[INFO] Loaded 3 error codes\n");
}

}  // namespace
