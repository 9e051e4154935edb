#include "explain.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>

#include "words.h"

namespace motorctl {
namespace {

std::optional<std::uint64_t> ParseWhole(std::string_view text, int base) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

Meaning NumberMeaning(const char* kind, const char* title, std::uint64_t number, int digits,
                      const std::string& meaning) {
  const std::string hex = Hex(number, digits);
  return {kind, title + (" " + hex) + ": " + meaning,
          Fields().Add("value", number).Add("hex", hex).Add("meaning", meaning)};
}

void AddNumber(std::uint64_t number, const Make* make, std::vector<Meaning>& readings) {
  if (number <= 0xFFFF) {
    const auto word = static_cast<std::uint16_t>(number);
    if (IsErrorCode(word)) {
      readings.push_back(NumberMeaning("error_code", "error code", word, 4, ErrorCodeText(word)));
    }
    if (FindState(word) != nullptr) {
      readings.push_back(
          NumberMeaning("statusword", "statusword", word, 4, StatuswordText(word, make)));
    }
  } else if (number <= 0xFFFFFFFF) {
    const char* const text = FindAbortCode(static_cast<std::uint32_t>(number));
    if (text != nullptr) {
      readings.push_back(NumberMeaning("abort_code", "abort code", number, 8, text));
    }
  }
}

// A payload alone does not tell what it is: what cannot be is left out.
void AddPayload(const std::string& digits, const Make* make, std::vector<Meaning>& readings) {
  const auto frame = ParseLogLine("000#" + digits);
  if (!frame) return;
  const std::uint8_t* const data = frame->data.data();
  if (FindErrorCode(static_cast<std::uint16_t>(data[0] | data[1] << 8)) != nullptr) {
    readings.push_back(DecodeEmergency(data));
    readings.back().text.insert(0, "emergency message: ");
  }
  const auto index = static_cast<std::uint16_t>(data[1] | data[2] << 8);
  if (ObjectName(index, data[3], make).empty()) return;
  for (const bool response : {false, true}) {
    Meaning sdo = DecodeSdo(data, response, make);
    // Only what names an object can be told; an abort reads the same in both directions.
    const auto fields = sdo.fields.Json();
    if (!fields.contains("index") || (fields["command"] == "abort" && !response)) continue;
    sdo.text.insert(0, response ? "SDO response: " : "SDO request: ");
    readings.push_back(std::move(sdo));
  }
}

}  // namespace

std::optional<std::vector<Meaning>> Explain(const std::string& code, const Make* make) {
  std::vector<Meaning> readings;
  if (const auto frame = ParseLogLine(code)) {
    readings.push_back(DecodeFrame(*frame, make));
    if (readings.back().kind == "unknown") readings.clear();
    return readings;
  }
  std::string digits = code;
  const bool prefixed = digits.rfind("0x", 0) == 0 || digits.rfind("0X", 0) == 0;
  if (prefixed) digits.erase(0, 2);
  const auto hexadecimal = ParseWhole(digits, 16);
  if (!hexadecimal) return std::nullopt;
  const auto decimal = prefixed ? std::nullopt : ParseWhole(digits, 10);
  if (digits.size() == 16) {
    AddPayload(digits, make, readings);
    return readings;
  }
  if (decimal) AddNumber(*decimal, make, readings);
  if (hexadecimal != decimal) AddNumber(*hexadecimal, make, readings);
  return readings;
}

}  // namespace motorctl
