#include "fields.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "words.h"

namespace motorctl {

void AppendQuoted(std::string& out, std::string_view text) {
  const auto plain = [](char c) {
    return c != '"' && c != '\\' && static_cast<unsigned char>(c) >= 0x20;
  };
  out += '"';
  while (!text.empty()) {
    const auto odd = std::find_if_not(text.begin(), text.end(), plain);
    const auto run = static_cast<std::size_t>(odd - text.begin());
    out.append(text, 0, run);
    text.remove_prefix(run);
    if (text.empty()) break;
    const char c = text.front();
    text.remove_prefix(1);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out.append("\\u00").append(Hex(static_cast<unsigned char>(c), 2), 2);
    }
  }
  out += '"';
}

Fields& Fields::AddList(std::string_view name, const std::vector<std::string>& texts) {
  AddName(name);
  text_ += '[';
  for (const std::string& text : texts) {
    if (text_.back() != '[') text_ += ',';
    AppendQuoted(text_, text);
  }
  text_ += ']';
  return *this;
}

Fields& Fields::Append(const Fields& more) {
  if (!text_.empty() && !more.text_.empty()) text_ += ',';
  text_ += more.text_;
  return *this;
}

nlohmann::ordered_json Fields::Json() const {
  return nlohmann::ordered_json::parse("{" + text_ + "}");
}

void Fields::AddName(std::string_view name) {
  constexpr std::size_t kUsual = 256;
  if (text_.empty()) {
    text_.reserve(kUsual);
  } else {
    text_ += ',';
  }
  text_ += '"';
  text_ += name;
  text_ += '"';
  text_ += ':';
}

void Fields::AddNumber(std::int64_t number) {
  char digits[24];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, number);
  text_.append(digits, end);
}

}  // namespace motorctl
