// SDO transfers with a far end whose answers are written down.
#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "far_end.h"
#include "sdo_client.h"

namespace motorctl {

using Kind = SdoAnswer::Kind;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

// Long beside what a busy machine takes for an answer.
constexpr milliseconds kShort{200};

struct Step {
  std::string request;
  Texts answers;
};

// Of node 1: "601#" and "581#" stand before each frame.
struct Case {
  std::string name;
  Bytes written;  // empty: an upload of 0x2000 sub 1
  std::vector<Step> steps;
  Kind kind = Kind::kOk;
  std::uint32_t abort_code = 0;
  std::size_t segment = 0;
  std::string read = {};
  bool size_told = true;
};

inline void PrintTo(const Case& row, std::ostream* out) { *out << row.name; }

inline Bytes Of(const std::string& text) { return {text.begin(), text.end()}; }

inline SdoAnswer Play(const Case& row) {
  bus::FarEnd node("can1");
  for (const Step& step : row.steps) {
    auto expectation = node.Expect("601#" + step.request);
    for (const std::string& answer : step.answers) expectation.Reply("581#" + answer);
  }
  const bool waits = row.kind == Kind::kGivenUp || row.kind == Kind::kNoAnswer;
  SdoClient client("can0", waits ? kShort : milliseconds(2000));
  return row.written.empty() ? client.Upload(1, 0x2000, 1, 1)
                             : client.Download(1, 0x2000, 1, row.written);
}

inline const std::string kAsk = "4000200100000000";
// "abcdefghij" in two segments of 7 and 3 bytes.
inline const Step kBegin = {kAsk, {"410020010A000000"}};
inline const Step kFirst = {"6000000000000000", {"0061626364656667"}};
inline const Step kSecond = {"7000000000000000", {"1968696A00000000"}};
inline const Step kWriteBegin = {"210020010A000000", {"6000200100000000"}};
inline const Step kWriteFirst = {"0061626364656667", {"2000000000000000"}};
inline const Step kWriteSecond = {"1968696A00000000", {"3000000000000000"}};
inline const Bytes kTen = Of("abcdefghij");

inline Step Aborted(const std::string& code) { return {"80002001" + code, {}}; }
// The same request with other answers.
inline Step With(const Step& step, const Texts& answers) { return {step.request, answers}; }

}  // namespace motorctl
