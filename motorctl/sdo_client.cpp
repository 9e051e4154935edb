#include "sdo_client.h"

#include <fake_driver.h>

#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kRequest = 0x600;
constexpr std::uint32_t kResponse = 0x580;
constexpr std::uint8_t kRead = 0x40;
constexpr std::uint8_t kAbort = 0x80;
constexpr std::uint8_t kDownloadConfirmed = 0x60;

// The library's own confirmed transfer tells neither the size of an answer nor a refusal from
// silence: the two halves of it do.
SdoAnswer Transfer(DriverCommon& drive, int node, std::uint8_t command, std::uint16_t index,
                   std::uint8_t sub_index, std::uint32_t data) {
  const auto id = static_cast<std::uint32_t>(node);
  SdoAnswer answer;
  drive.ClearReadQueue();
  if (!drive.SdoWrite(kRequest + id, command, index, sub_index, data)) {
    answer.kind = SdoAnswer::Kind::kNotSent;
    return answer;
  }
  std::uint8_t response = 0;
  std::uint32_t value = 0;
  if (!drive.WaitSdoResponse(kResponse + id, index, sub_index, &response, &value)) return answer;
  answer.value = value;
  if (response == kAbort) {
    answer.kind = SdoAnswer::Kind::kAborted;
  } else if (command != kRead) {
    if (response == kDownloadConfirmed) answer.kind = SdoAnswer::Kind::kOk;
  } else if ((response & 0xE0U) == 0x40U) {
    const bool expedited = (response & 0x02U) != 0;
    const bool has_size = (response & 0x01U) != 0;
    answer.kind = expedited ? SdoAnswer::Kind::kOk : SdoAnswer::Kind::kTooLong;
    if (expedited && has_size) {
      answer.size = 4U - ((response >> 2U) & 0x03U);
      answer.value &= 0xFFFFFFFFU >> (8U * (4U - answer.size));
    }
  }
  return answer;
}

// A frame that was lost is worth another attempt.
SdoAnswer TransferUntilAnswered(DriverCommon& drive, int node, std::uint8_t command,
                                std::uint16_t index, std::uint8_t sub_index, std::uint32_t data,
                                int attempts) {
  SdoAnswer answer;
  for (int attempt = 0; attempt < attempts && answer.kind == SdoAnswer::Kind::kNoAnswer;
       ++attempt) {
    answer = Transfer(drive, node, command, index, sub_index, data);
  }
  return answer;
}

}  // namespace

SdoAnswer ReadObject(DriverCommon& drive, int node, std::uint16_t index, std::uint8_t sub_index,
                     int attempts) {
  return TransferUntilAnswered(drive, node, kRead, index, sub_index, 0, attempts);
}

SdoAnswer WriteObject(DriverCommon& drive, int node, std::uint16_t index, std::uint8_t sub_index,
                      std::uint32_t value, unsigned size, int attempts) {
  const std::uint8_t command = size == 1 ? 0x2F : size == 2 ? 0x2B : 0x23;
  return TransferUntilAnswered(drive, node, command, index, sub_index, value, attempts);
}

std::string Explanation(const SdoAnswer& answer) {
  switch (answer.kind) {
    case SdoAnswer::Kind::kOk:
      return "";
    case SdoAnswer::Kind::kAborted:
      return "refused with abort code " + Hex(answer.value, 8) + ": " + AbortCodeText(answer.value);
    case SdoAnswer::Kind::kNoAnswer:
      return "no answer";
    case SdoAnswer::Kind::kNotSent:
      return "the request could not be sent";
    case SdoAnswer::Kind::kTooLong:
      return "the value is longer than 4 bytes (" + std::to_string(answer.value) +
             "): segmented transfers are not supported";
  }
  return "";
}

std::unique_ptr<DriverCommon> OpenBus(const Context& context) {
  auto drive = std::make_unique<FakeDriver>(context.vehicle.interface.c_str());
  CheckBus(*drive, context);
  return drive;
}

void CheckBus(const DriverCommon& drive, const Context& context) {
  const std::string& name = context.vehicle.interface;
  switch (drive.GetCanError()) {
    case 0:
      return;
    case 1:
      throw CommandFailed(
          "no CAN socket: this kernel has no SocketCAN (as root: modprobe can-raw; without "
          "hardware: tools/with-can)");
    case 2:
      throw CommandFailed("no CAN interface \"" + name +
                          "\": see \"ip link\" or \"motorctl doctor\"");
    default:
      throw CommandFailed(name + " failed: is it up? ip link set " + name +
                          " up type can bitrate 500000 restart-ms 100");
  }
}

std::string Reason(const motor_driver::SetUpFailure& failed) {
  SdoAnswer answer;
  if (failed.abort_code) {
    answer.kind = SdoAnswer::Kind::kAborted;
    answer.value = *failed.abort_code;
  }
  return NameObject(failed.index, failed.sub_index) + ": " + Explanation(answer);
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
