// The heartbeat monitor of DriverCommon.
#include <algorithm>
#include <chrono>
#include <utility>

#include "canopen.h"
#include "driver_common.h"

bool DriverCommon::HandleCanFrame(const CanFrame& frame) {
  const std::lock_guard<std::mutex> lock(heartbeat_mutex_);
  HeartbeatEntry* entry = FindHeartbeat(frame.can_id);
  if (entry == nullptr) {
    return false;
  }
  entry->record.state = frame.data[0];
  entry->record.received = true;
  entry->record.heard = true;
  entry->record.last_receipt = std::chrono::steady_clock::now();
  if (entry->callback) {
    entry->callback(entry->record);
  }
  return true;
}

void DriverCommon::AddHeartbeatId(const std::uint32_t& id) {
  const std::lock_guard<std::mutex> lock(heartbeat_mutex_);
  if (FindHeartbeat(id) == nullptr) {
    heartbeats_.push_back(
        {{id, 0, false, false, {}}, [this](HeartbeatTimeout& hb) { HeartbeatCallback(hb); }});
  }
}

void DriverCommon::AddHeartbeatCallback(const std::uint32_t& id,
                                        std::function<void(HeartbeatTimeout&)> callback) {
  const std::lock_guard<std::mutex> lock(heartbeat_mutex_);
  if (HeartbeatEntry* entry = FindHeartbeat(id)) {
    entry->callback = std::move(callback);
    return;
  }
  heartbeats_.push_back({{id, 0, false, false, {}}, std::move(callback)});
}

void DriverCommon::SetHeartbeatTimeOut(double seconds) { heartbeat_timeout_s_ = seconds; }

bool DriverCommon::IsManagedNode(std::uint8_t node) {
  const std::lock_guard<std::mutex> lock(heartbeat_mutex_);
  return FindHeartbeat(cia301::kHeartbeat + node) != nullptr;
}

bool DriverCommon::IsNodeOnline(std::uint8_t node) {
  const std::lock_guard<std::mutex> lock(heartbeat_mutex_);
  const HeartbeatEntry* entry = FindHeartbeat(cia301::kHeartbeat + node);
  if (entry == nullptr || !entry->record.heard) {
    return false;
  }
  const double timeout_s = heartbeat_timeout_s_;
  if (timeout_s <= 0.0) {
    return true;
  }
  const std::chrono::duration<double, std::nano> elapsed =
      std::chrono::steady_clock::now() - entry->record.last_receipt;
  return timeout_s * 1'000'000'000 >= elapsed.count();
}

DriverCommon::HeartbeatEntry* DriverCommon::FindHeartbeat(std::uint32_t id) {
  if (heartbeats_.empty()) {
    return nullptr;  // at once: every received frame comes here
  }
  const auto entry = std::find_if(heartbeats_.begin(), heartbeats_.end(),
                                  [id](const HeartbeatEntry& e) { return e.record.id == id; });
  return entry != heartbeats_.end() ? &*entry : nullptr;
}
