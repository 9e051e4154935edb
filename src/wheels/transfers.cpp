// The transfers of a bring-up, and what is said of those that fail.
#include <fmt/format.h>

#include "driver/canopen.h"
#include "wheels/bring_up.h"

namespace motor_driver {
namespace {

constexpr auto kPause = std::chrono::milliseconds(20);
constexpr int kAttempts = 3;
constexpr std::size_t kMostFailures = 200;

constexpr Object kStatusword = {cia402::kStatusword, 0};

}  // namespace

void BringUp::Finished(const SdoTransfer& transfer) {
  last_ = transfer;
  if (transfer.outcome != Outcome::kAccepted && transfer.command != cia301::kUpload &&
      failures_.size() < kMostFailures) {
    SetUpFailure failure;
    failure.node = static_cast<int>(transfer.can_id - cia301::kSdoRequest);
    failure.index = transfer.index;
    failure.sub_index = transfer.sub_index;
    failure.value = transfer.value;
    if (transfer.outcome == Outcome::kRefused) {
      failure.abort_code = transfer.answer;
    }
    failures_.push_back(failure);
  }
  surroundings_.Transferred();
}

bool BringUp::Write(std::size_t node, std::uint8_t command, const Object& object,
                    std::uint32_t value) {
  return drives_.drive().SdoWriteWithFeedback(SdoId(node), command, object.index, object.sub_index,
                                              value);
}

bool BringUp::Read(std::size_t node, const Object& object, std::uint32_t& value) {
  return drives_.drive().SdoWriteWithFeedbackData(SdoId(node), cia301::kUpload, object.index,
                                                  object.sub_index, 0, &value);
}

// Read back: the set-ups write some objects, too, and do not wait for the answer, which may be
// taken for the one to this write. Between attempts late answers get the time to come, and are
// dropped.
bool BringUp::WriteAndReadBack(std::size_t node, std::uint8_t command, const Object& object,
                               std::uint32_t value) {
  const std::uint32_t mask = command == cia301::kDownload2 ? 0xFFFF : 0xFFFFFFFF;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::uint32_t read = 0;
    if (Write(node, command, object, value)) {
      if (Read(node, object, read) && (read & mask) == value) {
        return true;
      }
    } else if (last_.outcome == Outcome::kRefused) {
      return false;
    }
    surroundings_.Wait(kPause);
  }
  return false;
}

// A refusal is an answer, too.
bool BringUp::Answers(std::size_t node) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::uint32_t ignored = 0;
    if (Read(node, kStatusword, ignored) || last_.outcome == Outcome::kRefused) {
      return true;
    }
  }
  return false;
}

Trouble BringUp::Refused(std::size_t node, const std::string& what) const {
  std::string reason = Name(node) + ": " + what;
  if (!failures_.empty()) {
    const SetUpFailure& first = failures_.front();
    reason +=
        fmt::format("; 0x{:04X} sub {} = 0x{:X}: ", first.index, first.sub_index, first.value);
    reason += first.abort_code ? fmt::format("abort code 0x{:08X}", *first.abort_code)
                               : std::string("no answer");
  }
  return {Fault::kSetUpRefused, Id(node),
          reason + "; is it of make " + drives_.make().name + ", and is its firmware known?"};
}

Trouble BringUp::NothingSent() const {
  return {Fault::kBusFailed, 0,
          fmt::format("nothing can be sent on {}: is the interface up, and does anything on the "
                      "bus acknowledge?",
                      drives_.vehicle().interface)};
}

Trouble BringUp::Silent(std::size_t node) const {
  if (!drives_.Sent()) {
    return NothingSent();
  }
  return {Fault::kNodeSilent, Id(node),
          fmt::format("{} does not answer on {}: check its supply, node-ID and bit rate, and the "
                      "termination of the bus",
                      Name(node), drives_.vehicle().interface)};
}

Trouble BringUp::Interrupted() const { return {Fault::kInterrupted, 0, "interrupted"}; }

std::uint32_t BringUp::SdoId(std::size_t node) const { return cia301::kSdoRequest + Id(node); }

std::uint16_t BringUp::PeriodMs() const {
  return static_cast<std::uint16_t>(drives_.vehicle().period.count());
}

}  // namespace motor_driver
