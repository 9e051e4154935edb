// The last frames of a bus, in memory that is taken once: a recorder must not grow.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bus_tap.h"

namespace motorctl {

class FrameRing {
 public:
  explicit FrameRing(std::size_t capacity) : frames_(std::max<std::size_t>(capacity, 1)) {}

  void Push(const BusFrame& frame) {
    frames_[next_] = frame;
    next_ = (next_ + 1) % frames_.size();
    size_ = std::min(size_ + 1, frames_.size());
    ++pushed_;
  }

  std::size_t size() const { return size_; }
  std::uint64_t pushed() const { return pushed_; }  // ever

  // Counted from the oldest.
  const BusFrame& at(std::size_t index) const {
    return frames_[(next_ + frames_.size() - size_ + index) % frames_.size()];
  }

 private:
  std::vector<BusFrame> frames_;
  std::size_t next_ = 0;
  std::size_t size_ = 0;
  std::uint64_t pushed_ = 0;
};

}  // namespace motorctl
