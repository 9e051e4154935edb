#include "feedback.h"

#include "canopen.h"
#include "little_endian.h"
#include "motion.h"

namespace {

constexpr int kLooks = 10;

}  // namespace

bool OneMotorFeedback::Decode(const CanFrame& frame, double counts_per_revolution,
                              std::uint16_t period_ms, std::uint8_t& node, double& rpm,
                              int& counts) {
  if (frame.can_id < cia301::kTpdo1 + first_node_ || frame.can_id > cia301::kTpdo1 + last_node_) {
    return false;
  }
  node = static_cast<std::uint8_t>(frame.can_id - cia301::kTpdo1);
  const std::uint32_t position = little_endian::Load32(frame.data + offset_);
  counts = static_cast<int>(position);
  rpm = motion::Rpm(position, previous_[node - first_node_].exchange(position),
                    counts_per_revolution, period_ms);
  return true;
}

bool OneMotorFeedback::Take(DriverCan& can, double counts_per_revolution, std::uint16_t period_ms,
                            std::uint8_t& node, double& rpm, int& counts) {
  CanFrame frame = {};
  if (!can.GetCanFrame(frame)) {
    node = 0;
    rpm = 0.0;
    counts = 0;
    return false;
  }
  Decode(frame, counts_per_revolution, period_ms, node, rpm, counts);
  return true;
}

bool ReportsPosition(DriverCommon& drive, std::uint8_t node, std::uint16_t period_ms) {
  drive.ClearReadQueue();
  for (int look = 0; look < kLooks; ++look) {
    drive.CanDelayMs(10U * period_ms);
    CanFrame frame = {};
    if (drive.GetCanFrame(frame) && frame.can_id == cia301::kTpdo1 + node) {
      return true;
    }
  }
  return false;
}
