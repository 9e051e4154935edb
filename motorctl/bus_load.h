// How full a bus was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "report_log.h"

namespace motorctl {

// What a classic frame takes on the wire: stuff bits, counted, and the pause after it included.
// `id`: as long as `extended` says.
unsigned BitsOnTheWire(std::uint32_t id, bool extended, bool remote, const std::uint8_t* data,
                       unsigned length);
unsigned BitsOnTheWire(const KeptFrame& frame);

class BusLoad {
 public:
  BusLoad() = default;
  // Of a stretch of time, in slices as long as are good for a picture of it.
  BusLoad(std::int64_t begin, std::int64_t end);

  void Count(const KeptFrame& frame);

  std::size_t frames() const { return frames_; }
  std::size_t error_frames() const { return error_frames_; }
  std::size_t fd_frames() const { return fd_frames_; }  // not counted in bits
  std::uint64_t bits() const { return bits_; }

  std::int64_t begin() const { return begin_; }
  std::int64_t slice() const { return slice_; }  // nanoseconds
  const std::vector<std::uint64_t>& bits_of_slices() const { return slices_; }
  double MeanBitsPerSecond() const;
  double MostBitsPerSecond() const;  // of a slice that is whole; 0 where none is

 private:
  std::int64_t begin_ = 0;
  std::int64_t end_ = 0;
  std::int64_t slice_ = 1;
  std::vector<std::uint64_t> slices_;
  std::size_t frames_ = 0;
  std::size_t error_frames_ = 0;
  std::size_t fd_frames_ = 0;
  std::uint64_t bits_ = 0;
};

}  // namespace motorctl
