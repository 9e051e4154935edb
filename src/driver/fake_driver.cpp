#include "fake_driver.h"

#include "log/logger.h"

FakeDriver::FakeDriver(const char* can_name) : DriverCommon(can_name) {}

// The receive thread makes virtual calls (heartbeats): it ends while the object is still of this
// class.
FakeDriver::~FakeDriver() { StopReading(); }

bool FakeDriver::ActiveNode(std::uint8_t node) {
  CORVEL_LOG_INFO("active node:{}", node);
  return true;
}

bool FakeDriver::ResetNode(std::uint8_t node) {
  CORVEL_LOG_INFO("reset node:{}", node);
  return true;
}

void FakeDriver::StartNode(std::uint8_t node) { CORVEL_LOG_INFO("start node:{}", node); }

void FakeDriver::StartAllNode() { CORVEL_LOG_INFO("start all node"); }

std::uint16_t FakeDriver::SetSpeedMode(std::uint8_t node) {
  CORVEL_LOG_INFO("set speed mode node:{}", node);
  return 0;
}

std::uint16_t FakeDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  CORVEL_LOG_INFO("enable speed mode and pdo mode node:{} period:{}", node, period_ms);
  period_ms_ = period_ms;
  return 0;
}

bool FakeDriver::SetSpeed(std::uint8_t node, int rpm) {
  CORVEL_LOG_DEBUG("set speed node:{} rpm:{}", node, rpm);
  return true;
}

bool FakeDriver::SetSpeed(std::uint8_t node, int rpm_l, int rpm_r) {
  CORVEL_LOG_DEBUG("set speed node:{} rpm_l:{} rpm_r:{}", node, rpm_l, rpm_r);
  return true;
}

bool FakeDriver::SetSpeed(std::uint8_t node, int rpm_l_front, int rpm_r_front, int rpm_l_rear,
                          int rpm_r_rear) {
  CORVEL_LOG_DEBUG("set speed node:{} rpm_l_front:{} rpm_r_front:{} rpm_l_rear:{} rpm_r_rear:{}",
                   node, rpm_l_front, rpm_r_front, rpm_l_rear, rpm_r_rear);
  return true;
}

bool FakeDriver::GetSpeed(std::uint8_t& node, double& rpm, int& encoder) {
  node = static_cast<std::uint8_t>((node & 3) + 1);
  rpm = 100.0;
  encoder = 1000;
  CORVEL_LOG_DEBUG("get speed node:{} rpm:{}", node, rpm);
  return true;
}

bool FakeDriver::GetSpeed(std::uint8_t& node, double& rpm_l, int& encoder_l, double& rpm_r,
                          int& encoder_r) {
  node = node % 2 == 1 ? 3 : 1;
  rpm_l = 100.0;
  encoder_l = 1000;
  rpm_r = 200.0;
  encoder_r = 2000;
  CORVEL_LOG_DEBUG("get speed node:{} rpm_l:{} encoder_l:{} rpm_r:{} encoder_r:{}", node, rpm_l,
                   encoder_l, rpm_r, encoder_r);
  return true;
}

bool FakeDriver::GetSpeed(std::uint8_t& node, double& rpm_l_front, int& encoder_l_front,
                          double& rpm_r_front, int& encoder_r_front, double& rpm_l_rear,
                          int& encoder_l_rear, double& rpm_r_rear, int& encoder_r_rear) {
  node = 1;
  rpm_l_front = 100.0;
  encoder_l_front = 1000;
  rpm_r_front = 200.0;
  encoder_r_front = 2000;
  rpm_l_rear = 300.0;
  encoder_l_rear = 3000;
  rpm_r_rear = 400.0;
  encoder_r_rear = 4000;
  CORVEL_LOG_DEBUG(
      "get speed node:{} rpm_l_front:{} encoder_l_front:{} rpm_r_front:{} encoder_r_front:{} "
      "rpm_l_rear:{} encoder_l_rear:{} rpm_r_rear:{} encoder_r_rear:{}",
      node, rpm_l_front, encoder_l_front, rpm_r_front, encoder_r_front, rpm_l_rear, encoder_l_rear,
      rpm_r_rear, encoder_r_rear);
  return true;
}

bool FakeDriver::CheckStatus(std::uint8_t node) {
  CORVEL_LOG_INFO("check status node:{}", node);
  return true;
}

bool FakeDriver::SaveAllParams(std::uint8_t) { return true; }

std::uint16_t FakeDriver::GetTpdo0Period(std::uint8_t node) {
  CORVEL_LOG_INFO("get tpdo0 period node:{}", node);
  return period_ms_;
}

std::uint32_t FakeDriver::GetNumberOfPulsesPerRevolution() {
  CORVEL_LOG_INFO("get encoder total count");
  return 131072;
}

bool FakeDriver::Init(std::uint8_t node1, std::uint8_t, std::uint16_t) {
  CORVEL_LOG_INFO("init node:{}", node1);
  return true;
}

std::uint16_t FakeDriver::WriteParam(std::uint8_t node, std::uint16_t fn_addr,
                                     std::uint8_t size_code, std::uint32_t value) {
  CORVEL_LOG_INFO("write param node:{} fn_addr:{} size_code:{} value:{}", node, fn_addr, size_code,
                  value);
  return 0;
}

std::uint16_t FakeDriver::ReadParam(std::uint8_t node, std::uint16_t fn_addr, std::uint32_t*) {
  CORVEL_LOG_INFO("read param node:{} fn_addr:{}", node, fn_addr);
  return 0;
}
