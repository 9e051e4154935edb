// Names and values that a program reads.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace motorctl {

// Appends a JSON string, quotes included; `text` is ASCII.
void AppendQuoted(std::string& out, std::string_view text);

// The members of a JSON object, in order. They are text from the first: a tree of values for each
// of a million lines takes longer than all the rest of them.
class Fields {
 public:
  template <typename Value>
  Fields& Add(std::string_view name, const Value& value) {
    AddName(name);
    if constexpr (std::is_same_v<Value, bool>) {
      text_ += value ? "true" : "false";
    } else if constexpr (std::is_integral_v<Value>) {
      AddNumber(static_cast<std::int64_t>(value));
    } else if constexpr (std::is_same_v<Value, Fields>) {
      text_.append("{").append(value.text_).append("}");
    } else {
      AppendQuoted(text_, value);
    }
    return *this;
  }
  Fields& AddList(std::string_view name, const std::vector<std::string>& texts);
  Fields& Append(const Fields& more);

  // "\"node\":1,\"state\":\"operational\"": without the braces.
  const std::string& text() const { return text_; }
  nlohmann::ordered_json Json() const;

 private:
  void AddName(std::string_view name);
  void AddNumber(std::int64_t number);

  std::string text_;
};

}  // namespace motorctl
