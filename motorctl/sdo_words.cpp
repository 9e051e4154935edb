#include "sdo_words.h"

#include "words.h"

namespace motorctl {
namespace {

std::string WithCode(const std::string& what, std::uint32_t code) {
  return what + " with abort code " + Hex(code, 8) + ": " + AbortCodeText(code);
}

std::string Milliseconds(std::chrono::milliseconds time) {
  return std::to_string(time.count()) + " ms";
}

std::string NoAnswer(const SdoAnswer& answer) {
  const std::string segment =
      answer.segment > 0 ? " to segment " + std::to_string(answer.segment) : "";
  std::string text = answer.wrong_size
                         ? "answered" + segment + " with " + std::to_string(*answer.wrong_size) +
                               " bytes instead of 8"
                         : "no answer" + segment + " within " + Milliseconds(answer.timeout);
  if (answer.other) {
    text += "; instead the node ended another transfer, of " +
            NameObject(answer.other->object.index, answer.other->object.sub_index) +
            WithCode(",", answer.other->code);
  }
  return text;
}

std::string Late(const SdoAnswer& answer) {
  return (answer.abort_code == 0 ? "answered"
                                 : WithCode("refused", answer.abort_code) + "; answered") +
         " after " + Milliseconds(answer.late) + ", too late for " + Milliseconds(answer.timeout);
}

std::string Interrupted(const SdoAnswer& answer) {
  return WithCode("interrupted, and ended", answer.abort_code);
}

constexpr const char* kHint = "; --timeout waits longer";

}  // namespace

std::string Explanation(const SdoAnswer& answer) {
  switch (answer.kind) {
    case SdoAnswer::Kind::kOk:
      return "";
    case SdoAnswer::Kind::kAborted:
      return WithCode("refused", answer.abort_code);
    case SdoAnswer::Kind::kGivenUp:
      return WithCode("given up after a wrong answer", answer.abort_code);
    case SdoAnswer::Kind::kNoAnswer:
      return NoAnswer(answer);
    case SdoAnswer::Kind::kLate:
      return Late(answer) + kHint;
    case SdoAnswer::Kind::kNotSent:
      return "the request could not be sent";
    case SdoAnswer::Kind::kInterrupted:
      return Interrupted(answer);
  }
  return "";
}

std::string WriteExplanation(const SdoAnswer& answer) {
  const bool begun = answer.segment > 0;
  const bool unheard =
      answer.kind == SdoAnswer::Kind::kNoAnswer || answer.kind == SdoAnswer::Kind::kInterrupted;
  if (unheard && !begun) return Explanation(answer) + "; whether it was written is not known";
  if (answer.kind == SdoAnswer::Kind::kLate && answer.abort_code == 0) {
    return Late(answer) + (begun ? "; it is not whole" : "; it was written") + kHint;
  }
  return Explanation(answer);
}

std::string Reason(const motor_driver::SetUpFailure& failed) {
  return NameObject(failed.index, failed.sub_index) + ": " +
         (failed.abort_code ? WithCode("refused", *failed.abort_code) : "no answer");
}

std::string Describe(const motor_driver::SetUpFailure& failed) {
  return "node " + std::to_string(failed.node) + ": failed: " + Reason(failed);
}

std::string NameObject(std::uint16_t index, std::uint8_t sub_index) {
  const std::string name = ObjectName(index, sub_index);
  return Hex(index, 4) + " sub " + std::to_string(sub_index) +
         (name.empty() ? "" : " (" + name + ")");
}

}  // namespace motorctl
