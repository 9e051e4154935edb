// What motorctl doctor asks a node.
#include <algorithm>
#include <string>
#include <vector>

#include "abort_codes.h"
#include "doctor_report.h"
#include "sdo_client.h"
#include "sdo_words.h"
#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kServoProfile = 402;
constexpr std::uint32_t kShownErrors = 8;

void CheckObjects(const Make& make, SdoClient& client, int node, DoctorReport& report) {
  std::vector<motor_driver::Object> objects = {{0x6040, 0}, {0x6041, 0}, {0x603F, 0}};
  for (const auto& more : {make.targets, make.positions, make.expected}) {
    objects.insert(objects.end(), more.begin(), more.end());
  }
  std::string missing;
  for (const motor_driver::Object& object : objects) {
    const SdoAnswer answer = client.Upload(node, object.index, object.sub_index);
    if (answer.ok()) continue;
    missing += (missing.empty() ? "" : "; ") + NameObject(object.index, object.sub_index) + ": " +
               Explanation(answer);
  }
  if (missing.empty()) {
    report.Ok("objects",
              "all " + std::to_string(objects.size()) + " that make " + make.name + " needs");
  } else {
    report.Fail("objects", missing, "is it really a drive of make " + std::string(make.name) + "?");
  }
}

void CheckHeartbeatTime(SdoClient& client, int node, DoctorReport& report) {
  const SdoAnswer heartbeat = client.Upload(node, 0x1017, 0);
  if (heartbeat.ok() && heartbeat.number() > 0) {
    report.Ok("heartbeat time", std::to_string(heartbeat.number()) + " ms (0x1017)");
  } else {
    report.Warn(
        "heartbeat time",
        heartbeat.ok() ? "0: the node sends no heartbeat (0x1017)"
                       : "0x1017: " + Explanation(heartbeat),
        "motorctl bring-up, or: motorctl sdo write " + std::to_string(node) + " 0x1017 0 u16 2000");
  }
}

std::string CodeText(std::uint32_t entry) {
  const auto code = static_cast<std::uint16_t>(entry);
  return Hex(code, 4) + ", " + ErrorCodeText(code);
}

void CheckErrorRegister(SdoClient& client, int node, const std::string& remedy,
                        DoctorReport& report) {
  const SdoAnswer bits = client.Upload(node, 0x1001, 0);
  const auto value = static_cast<std::uint8_t>(bits.number());
  if (!bits.ok()) {
    report.Warn("error register", "0x1001: " + Explanation(bits),
                "every node of CiA 301 has this object");
  } else if (value == 0) {
    report.Ok("error register", "none (0x1001)");
  } else {
    report.Fail("error register", Hex(value, 2) + ", " + ErrorRegisterText(value), remedy);
  }
}

void CheckErrorCode(SdoClient& client, int node, const std::string& remedy, DoctorReport& report) {
  const SdoAnswer error = client.Upload(node, 0x603F, 0);
  if (!error.ok()) {
    report.Warn("error code", "0x603F: " + Explanation(error), "see the error register (0x1001)");
    return;
  }
  // A node with two motors has the second one's code in the upper half.
  std::string text;
  for (const unsigned shift : {0U, 16U}) {
    const std::uint32_t code = error.number() >> shift & 0xFFFFU;
    if (code != 0) text += (text.empty() ? "" : "; ") + CodeText(code);
  }
  if (text.empty()) {
    report.Ok("error code", "none (0x603F)");
  } else {
    report.Fail("error code", text, remedy);
  }
}

// The newest error comes first. What is over is not a failure.
void CheckErrorHistory(SdoClient& client, int node, DoctorReport& report) {
  const char* const check = "error history";
  const std::string clear =
      "over, unless the error register says otherwise; forget them: motorctl sdo write " +
      std::to_string(node) + " 0x1003 0 u8 0";
  const SdoAnswer count = client.Upload(node, 0x1003, 0);
  if (!count.ok() && count.abort_code == kNoObject) {
    report.Ok(check, "the node keeps none (0x1003)");
    return;
  }
  if (!count.ok()) {
    report.Warn(check, "0x1003: " + Explanation(count), "what went wrong before is not known");
    return;
  }
  if (count.number() == 0) {
    report.Ok(check, "empty (0x1003)");
    return;
  }
  const std::uint32_t shown = std::min(count.number(), kShownErrors);
  std::string text = std::to_string(count.number()) + (count.number() == 1 ? " error" : " errors");
  for (std::uint32_t i = 1; i <= shown; ++i) {
    const SdoAnswer entry = client.Upload(node, 0x1003, static_cast<std::uint8_t>(i));
    text += (i == 1 ? ": " : "; ") + (entry.ok() ? CodeText(entry.number()) : Explanation(entry));
  }
  if (shown < count.number()) text += "; ...";
  report.Warn(check, text, clear);
}

void CheckErrors(const Context& context, SdoClient& client, int node, DoctorReport& report) {
  const std::string remedy = std::string("mend the cause; \"motorctl --make ") +
                             (context.make == nullptr ? "MAKE" : context.make->name) +
                             " bring-up " + std::to_string(node) + "\" clears the error";
  CheckErrorRegister(client, node, remedy, report);
  CheckErrorCode(client, node, remedy, report);
  CheckErrorHistory(client, node, report);
}

}  // namespace

void CheckNode(const Context& context, int node, DoctorReport& report) {
  SdoClient client(context.vehicle.interface, context.SdoTimeout());
  const std::string name = "node " + std::to_string(node);
  const SdoAnswer type = client.Upload(node, 0x1000, 0);
  if (type.kind == SdoAnswer::Kind::kNotSent) {
    report.Fail("sdo", name + ": the request could not be sent",
                "nobody acknowledges: another node must be switched on, with the same bit rate");
    return;
  }
  if (type.kind == SdoAnswer::Kind::kNoAnswer) {
    std::string remedy =
        "its supply, node number and bit rate; \"motorctl scan\" shows who answers";
    if (context.make != nullptr && context.make->must_be_woken) {
      remedy += std::string("; an inactive ") + context.make->name +
                " drive is silent until \"motorctl --make " + context.make->name + " bring-up\"";
    }
    report.Fail("sdo", name + " does not answer", remedy);
    return;
  }
  report.Ok("sdo", name + " answers");
  if (type.ok() && (type.number() & 0xFFFFU) == kServoProfile) {
    report.Ok("device type", Hex(type.number(), 8) + ", a drive of CiA 402");
  } else {
    report.Fail("device type",
                type.ok() ? Hex(type.number(), 8) + ", no drive of CiA 402"
                          : "0x1000: " + Explanation(type),
                "this node number belongs to another device");
  }
  const SdoAnswer vendor = client.Upload(node, 0x1018, 1);
  const SdoAnswer product = client.Upload(node, 0x1018, 2);
  if (vendor.ok() && product.ok()) {
    report.Ok("identity",
              "vendor " + Hex(vendor.number(), 8) + ", product " + Hex(product.number(), 8));
  } else {
    report.Warn("identity", "0x1018: " + Explanation(vendor.ok() ? product : vendor),
                "the drive cannot be told from others of its kind");
  }
  if (context.make != nullptr && !context.make->simulated) {
    CheckObjects(*context.make, client, node, report);
  }
  CheckHeartbeatTime(client, node, report);
  CheckErrors(context, client, node, report);
}

}  // namespace motorctl
