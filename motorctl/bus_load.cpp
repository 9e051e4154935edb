#include "bus_load.h"

#include <algorithm>

namespace motorctl {
namespace {

constexpr std::int64_t kShortestSlice = 100'000'000;
constexpr std::int64_t kMostSlices = 1000;

// The bits of a frame, from the first one to the end of its checksum, after five of which that are
// alike the controller stuffs one that differs.
class Wire {
 public:
  void Add(std::uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      const unsigned bit = bits >> i & 1U;
      crc_ = (crc_ << 1) ^ (((crc_ >> 14 & 1U) ^ bit) != 0 ? kPolynomial : 0);
      Send(bit);
    }
  }

  unsigned Finish() {
    const std::uint32_t crc = crc_ & 0x7FFF;
    for (int i = 14; i >= 0; --i) Send(crc >> i & 1U);
    return sent_;
  }

 private:
  static constexpr std::uint32_t kPolynomial = 0x4599;

  void Send(unsigned bit) {
    ++sent_;
    alike_ = bit == last_ ? alike_ + 1 : 1;
    last_ = bit;
    if (alike_ < 5) return;
    ++sent_;
    last_ = bit ^ 1U;
    alike_ = 1;
  }

  std::uint32_t crc_ = 0;
  unsigned sent_ = 0;
  unsigned last_ = 2;  // neither
  unsigned alike_ = 0;
};

// Delimiters, acknowledge, end of frame, and the pause of three bits.
constexpr unsigned kWithoutStuffing = 13;

}  // namespace

unsigned BitsOnTheWire(std::uint32_t id, bool extended, bool remote, const std::uint8_t* data,
                       unsigned length) {
  Wire wire;
  wire.Add(0, 1);
  if (extended) {
    wire.Add(id >> 18, 11);
    wire.Add(3, 2);
    wire.Add(id & 0x3FFFF, 18);
    wire.Add(remote ? 4 : 0, 3);
  } else {
    wire.Add(id, 11);
    wire.Add(remote ? 4 : 0, 3);
  }
  wire.Add(length, 4);
  if (!remote) {
    for (unsigned i = 0; i < length; ++i) wire.Add(data[i], 8);
  }
  return wire.Finish() + kWithoutStuffing;
}

unsigned BitsOnTheWire(const KeptFrame& frame) {
  return BitsOnTheWire(frame.id, frame.extended, frame.kind == LoggedFrame::Kind::kRemote,
                       frame.data, frame.length);
}

BusLoad::BusLoad(std::int64_t begin, std::int64_t end)
    : begin_(begin),
      end_(end),
      slice_(std::max(kShortestSlice, (end - begin) / kMostSlices + 1)),
      slices_(static_cast<std::size_t>((end - begin) / slice_ + 1)) {}

void BusLoad::Count(const KeptFrame& frame) {
  if (frame.kind == LoggedFrame::Kind::kError) {
    ++error_frames_;
    return;
  }
  ++frames_;
  if (frame.kind == LoggedFrame::Kind::kFd) {
    ++fd_frames_;
    return;
  }
  const unsigned bits = BitsOnTheWire(frame);
  bits_ += bits;
  slices_[static_cast<std::size_t>((frame.nanoseconds - begin_) / slice_)] += bits;
}

double BusLoad::MeanBitsPerSecond() const {
  return end_ == begin_ ? 0 : static_cast<double>(bits_) * 1e9 / static_cast<double>(end_ - begin_);
}

double BusLoad::MostBitsPerSecond() const {
  if (slices_.size() < 2) return 0;
  const std::uint64_t most = *std::max_element(slices_.begin(), slices_.end() - 1);
  return static_cast<double>(most) * 1e9 / static_cast<double>(slice_);
}

}  // namespace motorctl
