// Every write of every make's set-up refused once: it is counted once, told in exactly its own
// words, and everything after it is still sent.
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "makes.h"
#include "output_capture.h"

namespace {

enum class Refusal { kAbort, kSilence };

void PrintTo(Refusal refusal, std::ostream* out) {
  *out << (refusal == Refusal::kAbort ? "abort" : "silence");
}

class SetUpRefusalsTest : public bus::BusTest,
                          public ::testing::WithParamInterface<std::tuple<tested::Make, Refusal>> {
};

// The line that a request "601#cciiiissdddddddd" without answer leaves in the log.
std::string TimeoutLine(const std::string& request) {
  return "[WARN] SDO response timeout, can_id: 0x581, index: 0x" + request.substr(8, 2) +
         request.substr(6, 2) + ", sub: 0x" + request.substr(10, 2) + "\n";
}

struct Outcome {
  int failures;
  std::string out;
  std::string err;
  std::vector<std::string> sent;
};

// A set-up of node 1 that refuses one request, counted from 0.
Outcome SetUpRefusing(const tested::Make& make, std::size_t request, Refusal refusal) {
  bus::FarEnd far_end;
  const std::unique_ptr<DriverCommon> drive = make.create("can0");
  if (refusal == Refusal::kAbort) {
    far_end.AnswerSdo(1).Abort(request);
  } else {
    far_end.AnswerSdo(1).Silence(request);
  }
  support::OutputCapture capture;
  const std::uint16_t failures = drive->EnableSpeedModeAndPdoMode(1, 10);
  capture.Stop();
  EXPECT_TRUE(far_end.WaitFrames(make.script.size()));
  return {failures, support::WithoutNumbers(capture.Out()), capture.Err(), far_end.Frames()};
}

TEST_P(SetUpRefusalsTest, AreCountedAndToldAndStopNothing) {
  const auto& [make, refusal] = GetParam();
  std::size_t request = 0;
  for (const SetUpStep& step : make.script) {
    const bool is_request = step.frame.substr(0, 4) == "601#";
    if (is_request && !step.printed.empty()) {
      SCOPED_TRACE("request " + std::to_string(request) + ": " + step.frame);
      const Outcome expected = {
          1, (refusal == Refusal::kSilence ? TimeoutLine(step.frame) : "") + step.printed, "",
          FramesOf(make.script)};
      const Outcome outcome = SetUpRefusing(make, request, refusal);
      EXPECT_EQ(outcome.failures, expected.failures);
      EXPECT_EQ(outcome.out, expected.out);
      EXPECT_EQ(outcome.err, expected.err);
      EXPECT_EQ(outcome.sent, expected.sent);
    }
    request += is_request ? 1 : 0;
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, SetUpRefusalsTest,
                         ::testing::Combine(::testing::ValuesIn(tested::Makes()),
                                            ::testing::Values(Refusal::kAbort, Refusal::kSilence)),
                         [](const ::testing::TestParamInfo<SetUpRefusalsTest::ParamType>& test) {
                           return std::get<0>(test.param).name +
                                  (std::get<1>(test.param) == Refusal::kAbort ? "ByAbort"
                                                                              : "BySilence");
                         });

}  // namespace
