#include "config_diff.h"

namespace motorctl {
namespace {

std::string TextOf(const ConfigObject* object, const ConfigObject* other) {
  if (object == nullptr) return "";
  const bool typed = object->type || other == nullptr;
  return ConfigValueText(typed ? *object : *other, object->bytes);
}

}  // namespace

std::string ConfigDifference::name() const {
  if (left != nullptr && !left->name.empty()) return left->name;
  return right != nullptr ? right->name : "";
}

std::string ConfigDifference::LeftText() const { return TextOf(left, right); }
std::string ConfigDifference::RightText() const { return TextOf(right, left); }

std::vector<ConfigDifference> Differences(const Config& left, const Config& right,
                                          bool with_volatile) {
  std::vector<ConfigDifference> result;
  const auto add = [&](const ConfigObject* one, const ConfigObject* other) {
    const bool is_volatile =
        (one != nullptr && one->is_volatile) || (other != nullptr && other->is_volatile);
    if (!is_volatile || with_volatile) result.push_back({one, other});
  };
  for (auto one = left.objects.begin(), other = right.objects.begin();
       one != left.objects.end() || other != right.objects.end();) {
    const auto place = [](const ConfigObject& object) {
      return std::make_pair(object.index, object.sub);
    };
    if (other == right.objects.end() ||
        (one != left.objects.end() && place(*one) < place(*other))) {
      add(&*one++, nullptr);
    } else if (one == left.objects.end() || place(*other) < place(*one)) {
      add(nullptr, &*other++);
    } else {
      if (one->bytes != other->bytes) add(&*one, &*other);
      ++one;
      ++other;
    }
  }
  return result;
}

}  // namespace motorctl
