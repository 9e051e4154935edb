// A drive of memory, with one thing that goes wrong.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config_device.h"

namespace motorctl {

using Where = std::pair<std::uint16_t, std::uint8_t>;

inline SdoAnswer Answer(SdoAnswer::Kind kind, std::uint32_t code = 0) {
  SdoAnswer answer;
  answer.kind = kind;
  answer.abort_code = code;
  return answer;
}

class MemoryDrive : public ConfigDevice {
 public:
  MemoryDrive() {
    values[{0x1000, 0}] = {1, 2, 3, 4};
    for (std::uint8_t sub = 1; sub <= 4; ++sub) values[{0x1018, sub}] = {sub, 0, 0, 0};
    for (std::uint8_t sub = 1; sub <= 5; ++sub) values[{0x2000, sub}] = {sub};
  }

  SdoAnswer Read(std::uint16_t index, std::uint8_t sub) override {
    ++reads;
    if (!Hears()) return Answer(SdoAnswer::Kind::kNoAnswer);
    if (fail_read.count({index, sub}) != 0) return Answer(SdoAnswer::Kind::kAborted, 0x08000000);
    const auto value = values.find({index, sub});
    if (value == values.end()) return Answer(SdoAnswer::Kind::kAborted, 0x06020000);
    SdoAnswer answer = Answer(SdoAnswer::Kind::kOk);
    answer.bytes = value->second;
    if (lies_at == Where(index, sub)) answer.bytes[0] ^= 0x80;
    if (index == changes) ++value->second[0];
    return answer;
  }

  SdoAnswer Write(std::uint16_t index, std::uint8_t sub, const Bytes& bytes) override {
    if (!Hears()) return Answer(SdoAnswer::Kind::kNoAnswer);
    log.push_back({{index, sub}, bytes});
    const int number = ++writes;
    if (number == vanish_at) {
      silent = true;
      back_at = requests + requests_until_back;
      return Answer(SdoAnswer::Kind::kNoAnswer);
    }
    if (number == abort_at) return Answer(SdoAnswer::Kind::kAborted, abort_code);
    if (number == lose_at) return Answer(SdoAnswer::Kind::kNoAnswer);
    if (number > refuse_after) return Answer(SdoAnswer::Kind::kAborted, 0x08000022);
    if (number > die_after) {
      silent = true;
      return Answer(SdoAnswer::Kind::kNoAnswer);
    }
    values[{index, sub}] = bytes;
    if (sets_back_by == Where(index, sub)) values[{0x2000, 1}] = {1};
    if (number == lose_answer_at) return Answer(SdoAnswer::Kind::kNoAnswer);
    if (number == swap_after) {
      booted = true;
      values[{0x1018, 4}] = serial_after;
    }
    return Answer(SdoAnswer::Kind::kOk);
  }

  std::string Disturbance() override {
    heard_boot_up = booted;
    if (booted) return "node 1 booted up in the middle";
    return writes >= disturb_after ? "interrupted" : "";
  }
  bool booted_up() const override { return heard_boot_up; }

  bool Hears() {
    if (++requests < back_at) return !silent;
    back_at = kNever;
    silent = false;
    booted = tells_boot_up;
    values[{0x1018, 4}] = serial_after;
    return true;
  }

  static constexpr int kNever = 1000000;
  std::map<Where, Bytes> values;
  std::vector<std::pair<Where, Bytes>> log;
  std::map<Where, bool> fail_read;
  Where lies_at = {0, 0};
  Where sets_back_by = {0, 0};  // a write of it sets 0x2000:01 to 1
  std::uint16_t changes = 0;
  Bytes serial_after = {4, 0, 0, 0};
  int writes = 0;
  int reads = 0;
  int requests = 0;
  int abort_at = kNever;
  std::uint32_t abort_code = 0x06090030;
  int lose_at = kNever;
  int lose_answer_at = kNever;
  int refuse_after = kNever;
  int die_after = kNever;
  int swap_after = kNever;
  int disturb_after = kNever;
  int vanish_at = kNever;            // this write is lost, and it is silent
  int requests_until_back = kNever;  // then it booted up, with `serial_after`
  int back_at = kNever;
  bool tells_boot_up = true;
  bool silent = false;
  bool booted = false;
  bool heard_boot_up = false;  // when it was last asked for a disturbance
};

}  // namespace motorctl
