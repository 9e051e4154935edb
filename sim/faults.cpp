#include "sim/faults.h"

#include <charconv>
#include <limits>
#include <stdexcept>
#include <string>

namespace sim {
namespace {

enum class Form {
  kNothing,
  kNumber,
  kNumberAndAbort,
  kObject,
  kObjectAndAbort,
  kObjectAndValue,
  kTimeAndError
};

struct Syntax {
  const char* name;
  Fault::Kind kind;
  Form form;
};

// clang-format off
constexpr Syntax kSyntax[] = {
    {"abort-write",        Fault::Kind::kAbortWrite,        Form::kNumberAndAbort},
    {"ignore-write",       Fault::Kind::kIgnoreWrite,       Form::kNumber},
    {"abort-object",       Fault::Kind::kAbortObject,       Form::kObjectAndAbort},
    {"ignore-object",      Fault::Kind::kIgnoreObject,      Form::kObject},
    {"abort-value",        Fault::Kind::kAbortValue,        Form::kObjectAndValue},
    {"delay-replies-ms",   Fault::Kind::kDelayReplies,      Form::kNumber},
    {"duplicate-replies",  Fault::Kind::kDuplicateReplies,  Form::kNothing},
    {"truncate-replies",   Fault::Kind::kTruncateReplies,   Form::kNumber},
    {"wrong-index",        Fault::Kind::kWrongIndexReplies, Form::kNothing},
    {"abort-segment",      Fault::Kind::kAbortSegment,      Form::kNumberAndAbort},
    {"ignore-segment",     Fault::Kind::kIgnoreSegment,     Form::kNumber},
    {"wrong-toggle",       Fault::Kind::kWrongToggle,       Form::kNumber},
    {"wrong-size",         Fault::Kind::kWrongSize,         Form::kNumber},
    {"no-size",            Fault::Kind::kNoSize,            Form::kNothing},
    {"power-cut-after-ms", Fault::Kind::kPowerCutAfter,     Form::kNumber},
    {"power-on-after-ms",  Fault::Kind::kPowerOnAfter,      Form::kNumber},
    {"error-after-ms",     Fault::Kind::kErrorAfter,        Form::kTimeAndError},
    {"no-heartbeat-after-ms", Fault::Kind::kNoHeartbeatAfter, Form::kNumber},
    {"no-reports-after-ms", Fault::Kind::kNoReportsAfter,   Form::kNumber},
    {"block-motor-after-ms", Fault::Kind::kBlockMotorAfter, Form::kNumber},
    {"emergency-stop-after-ms",    Fault::Kind::kEmergencyStopAfter,    Form::kNumber},
    {"emergency-release-after-ms", Fault::Kind::kEmergencyReleaseAfter, Form::kNumber},
};
// clang-format on

[[noreturn]] void Refuse(std::string_view text, const char* reason) {
  throw std::invalid_argument("fault '" + std::string(text) + "': " + reason);
}

std::uint32_t ParseNumber(std::string_view text, std::string_view whole, std::uint32_t max) {
  std::string_view digits = text;
  const bool hexadecimal = digits.substr(0, 2) == "0x" || digits.substr(0, 2) == "0X";
  if (hexadecimal) digits.remove_prefix(2);
  std::uint32_t value = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, hexadecimal ? 16 : 10);
  if (error != std::errc() || stop != end) Refuse(whole, "a number is missing or malformed");
  if (value > max) Refuse(whole, "a number is too large");
  return value;
}

// Cuts text at the first `mark` and returns what follows it; nothing when there is none.
std::optional<std::string_view> SplitOff(std::string_view& text, char mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view rest = text.substr(at + 1);
  text = text.substr(0, at);
  return rest;
}

void ParseObject(std::string_view text, std::string_view whole, Fault& fault) {
  const auto sub = SplitOff(text, ':');
  fault.index = static_cast<std::uint16_t>(ParseNumber(text, whole, 0xFFFF));
  if (sub) fault.sub = static_cast<std::uint8_t>(ParseNumber(*sub, whole, 0xFF));
}

bool CountsWrites(const Fault& fault) {
  return fault.kind == Fault::Kind::kAbortWrite || fault.kind == Fault::Kind::kIgnoreWrite;
}

bool CountsSegments(const Fault& fault) {
  return fault.kind == Fault::Kind::kAbortSegment || fault.kind == Fault::Kind::kIgnoreSegment ||
         fault.kind == Fault::Kind::kWrongToggle;
}

bool CountsOut(Fault& fault) { return fault.number != 0 && --fault.number == 0; }

}  // namespace

const char* FaultHelp() {
  return "Faults (INDEX, SUB and codes in decimal, or hexadecimal with 0x; times count from the "
         "start):\n"
         "  abort-write=N[/ABORT]              refuse the N-th SDO write (ABORT: 0x08000000)\n"
         "  ignore-write=N                     neither perform nor answer the N-th SDO write\n"
         "  abort-object=INDEX[:SUB][/ABORT]   refuse every access to an object\n"
         "  ignore-object=INDEX[:SUB]          neither perform nor answer any access to an object\n"
         "  abort-value=INDEX[:SUB]/VALUE      refuse every write of this value to an object\n"
         "  delay-replies-ms=N                 SDO replies leave N ms late\n"
         "  duplicate-replies                  send every SDO reply twice\n"
         "  truncate-replies=N                 cut SDO replies to N bytes, 0 to 7\n"
         "  wrong-index                        SDO replies name the next index\n"
         "  abort-segment=N[/ABORT]            refuse the N-th segment of SDO transfers\n"
         "  ignore-segment=N                   neither take nor answer the N-th segment\n"
         "  wrong-toggle=N                     answer the N-th segment with the wrong toggle bit\n"
         "  wrong-size=N                       indicate N bytes at uploads in segments\n"
         "  no-size                            do not indicate the size of uploads\n"
         "  power-cut-after-ms=N               fall silent after N ms\n"
         "  power-on-after-ms=N                boot up again after N ms\n"
         "  error-after-ms=N/CODE              trip with this error code until a fault reset\n"
         "  no-heartbeat-after-ms=N            stop heartbeats, go on with everything else\n"
         "  no-reports-after-ms=N              stop position reports, go on with everything else\n"
         "  block-motor-after-ms=N             hold the motors still, whatever the drive does\n"
         "  emergency-stop-after-ms=N          press the emergency stop (as SIGUSR1 does)\n"
         "  emergency-release-after-ms=N       release it (as SIGUSR2 does)\n"
         "Example: --fault abort-write=3 --fault ignore-object=0x6060:0\n";
}

Fault ParseFault(std::string_view text) {
  std::string_view name = text;
  const auto argument = SplitOff(name, '=');
  for (const Syntax& syntax : kSyntax) {
    if (name != syntax.name) continue;
    Fault fault;
    fault.kind = syntax.kind;
    if (argument.has_value() == (syntax.form == Form::kNothing)) {
      Refuse(text, argument ? "takes no value" : "needs a value");
    }
    std::string_view value = argument.value_or(std::string_view());
    std::optional<std::string_view> code;
    switch (syntax.form) {
      case Form::kNothing:
        return fault;
      case Form::kNumberAndAbort:
      case Form::kObjectAndAbort:
        code = SplitOff(value, '/');
        if (code) {
          fault.abort_code = static_cast<AbortCode>(
              ParseNumber(*code, text, std::numeric_limits<std::uint32_t>::max()));
        }
        break;
      case Form::kObjectAndValue:
        code = SplitOff(value, '/');
        if (!code) Refuse(text, "needs an object and a value");
        fault.number = ParseNumber(*code, text, std::numeric_limits<std::uint32_t>::max());
        break;
      case Form::kTimeAndError:
        code = SplitOff(value, '/');
        if (!code) Refuse(text, "needs a time and an error code");
        fault.error_code = static_cast<std::uint16_t>(ParseNumber(*code, text, 0xFFFF));
        if (fault.error_code == 0) Refuse(text, "the error code must not be 0");
        break;
      case Form::kNumber:
      case Form::kObject:
        break;
    }
    if (syntax.form == Form::kObject || syntax.form == Form::kObjectAndAbort ||
        syntax.form == Form::kObjectAndValue) {
      ParseObject(value, text, fault);
      return fault;
    }
    const bool truncates = fault.kind == Fault::Kind::kTruncateReplies;
    fault.number =
        ParseNumber(value, text, truncates ? 7 : std::numeric_limits<std::uint32_t>::max());
    if (CountsWrites(fault) && fault.number == 0) Refuse(text, "the first write is number 1");
    if (CountsSegments(fault) && fault.number == 0) Refuse(text, "the first segment is number 1");
    return fault;
  }
  Refuse(text, "unknown; --help lists the faults");
}

void SdoFaults::Inject(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kDelayReplies:
      reply_.delay = std::chrono::milliseconds(fault.number);
      break;
    case Fault::Kind::kDuplicateReplies:
      reply_.twice = true;
      break;
    case Fault::Kind::kTruncateReplies:
      reply_.length = static_cast<std::uint8_t>(fault.number);
      break;
    case Fault::Kind::kWrongIndexReplies:
      reply_.wrong_index = true;
      break;
    case Fault::Kind::kWrongSize:
      reply_.size = fault.number;
      break;
    case Fault::Kind::kNoSize:
      reply_.no_size = true;
      break;
    default:
      faults_.push_back(fault);
      break;
  }
}

SdoFaults::Verdict SdoFaults::Judge(const SdoRequest& request) {
  using Kind = SdoRequest::Kind;
  const bool write = request.kind == Kind::kDownload || request.kind == Kind::kDownloadBegin;
  const bool access = write || request.kind == Kind::kUpload;
  const bool segment =
      request.kind == Kind::kDownloadSegment || request.kind == Kind::kUploadSegment;
  Verdict verdict;
  for (Fault& fault : faults_) {
    const bool of_object =
        access && fault.index == request.index && fault.sub.value_or(request.sub) == request.sub;
    // The toggle bit is a matter of the reply.
    const bool counts = (CountsWrites(fault) && write) || (CountsSegments(fault) && segment &&
                                                           fault.kind != Fault::Kind::kWrongToggle);
    const bool counted_out = counts && CountsOut(fault);
    switch (fault.kind) {
      case Fault::Kind::kAbortSegment:
      case Fault::Kind::kAbortWrite:
        if (counted_out) verdict = {Verdict::Action::kAbort, fault.abort_code};
        break;
      case Fault::Kind::kIgnoreSegment:
      case Fault::Kind::kIgnoreWrite:
        if (counted_out) verdict = {Verdict::Action::kIgnore, AbortCode::kNone};
        break;
      case Fault::Kind::kAbortObject:
        if (of_object) verdict = {Verdict::Action::kAbort, fault.abort_code};
        break;
      case Fault::Kind::kAbortValue:
        if (of_object && request.kind == Kind::kDownload && request.value == fault.number) {
          verdict = {Verdict::Action::kAbort, fault.abort_code};
        }
        break;
      case Fault::Kind::kIgnoreObject:
        if (of_object) verdict = {Verdict::Action::kIgnore, AbortCode::kNone};
        break;
      default:
        break;
    }
  }
  return verdict;
}

void SdoFaults::Spoil(SdoBytes& reply) {
  if (IsSegment(reply)) {
    for (Fault& fault : faults_) {
      if (fault.kind == Fault::Kind::kWrongToggle && CountsOut(fault)) reply[0] ^= 0x10U;
    }
  }
  if (!BeginsUpload(reply)) return;
  const bool in_segments = (reply[0] & 0x02U) == 0;
  if (in_segments && reply_.size) PutLittleEndian(reply.begin() + 4, 4, *reply_.size);
  if (!reply_.no_size) return;
  reply[0] = in_segments ? 0x40 : 0x42;
  if (in_segments) PutLittleEndian(reply.begin() + 4, 4, 0);
}

}  // namespace sim
