// Every write of every make's set-up refused once: it is counted once, told in exactly its own
// words, and everything after it is still sent.
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "makes.h"
#include "output_capture.h"

namespace {

enum class Refusal { kAbort, kSilence };

// Each refusal in a case of its own: a machine that stalls makes other requests time out, too.
struct Refused {
  tested::Make make;
  std::size_t step;     // of the make's script
  std::size_t request;  // this step, counted from 0 among the requests
  Refusal refusal;
};

void PrintTo(const Refused& refused, std::ostream* out) {
  *out << refused.make.script[refused.step].frame;
}

std::vector<Refused> AllRefused() {
  std::vector<Refused> all;
  for (const tested::Make& make : tested::Makes()) {
    std::size_t request = 0;
    for (std::size_t step = 0; step < make.script.size(); ++step) {
      const bool is_request = make.script[step].frame.substr(0, 4) == "601#";
      if (is_request && !make.script[step].printed.empty()) {
        all.push_back({make, step, request, Refusal::kAbort});
        all.push_back({make, step, request, Refusal::kSilence});
      }
      request += is_request ? 1 : 0;
    }
  }
  return all;
}

class SetUpRefusalsTest : public bus::PunctualBusTest,
                          public ::testing::WithParamInterface<Refused> {};

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

TEST_P(SetUpRefusalsTest, IsCountedAndToldAndStopsNothing) {
  const auto& [make, step, request, refusal] = GetParam();
  const auto& [frame, printed] = make.script[step];
  const Outcome expected = {1, (refusal == Refusal::kSilence ? TimeoutLine(frame) : "") + printed,
                            "", FramesOf(make.script)};
  const Outcome outcome = SetUpRefusing(make, request, refusal);
  EXPECT_EQ(outcome.failures, expected.failures);
  EXPECT_EQ(outcome.out, expected.out);
  EXPECT_EQ(outcome.err, expected.err);
  EXPECT_EQ(outcome.sent, expected.sent);
}

INSTANTIATE_TEST_SUITE_P(Makes, SetUpRefusalsTest, ::testing::ValuesIn(AllRefused()),
                         [](const ::testing::TestParamInfo<Refused>& test) {
                           return test.param.make.name + std::to_string(test.param.request) +
                                  (test.param.refusal == Refusal::kAbort ? "ByAbort" : "BySilence");
                         });

}  // namespace
