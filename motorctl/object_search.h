// Objects in a vector that is sorted by index, then sub-index.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace motorctl {

// nullptr where there is no such object.
template <typename Object>
const Object* FindObject(const std::vector<Object>& sorted, std::uint16_t index, std::uint8_t sub) {
  using Place = std::pair<std::uint16_t, std::uint8_t>;
  const auto found = std::lower_bound(sorted.begin(), sorted.end(), Place(index, sub),
                                      [](const Object& object, const Place& place) {
                                        return Place(object.index, object.sub) < place;
                                      });
  return found == sorted.end() || found->index != index || found->sub != sub ? nullptr : &*found;
}

}  // namespace motorctl
