#include "driver/little_endian.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using little_endian::Load16;
using little_endian::Load32;
using little_endian::Store16;
using little_endian::Store32;

TEST(LittleEndianTest, StoresTheLeastSignificantByteFirst) {
  std::array<std::uint8_t, 4> bytes = {0xAA, 0xAA, 0xAA, 0xAA};
  Store16(0x1234, bytes.data());
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 4>{0x34, 0x12, 0xAA, 0xAA}));
  Store32(0x89ABCDEF, bytes.data());
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 4>{0xEF, 0xCD, 0xAB, 0x89}));
}

TEST(LittleEndianTest, LoadsTheLeastSignificantByteFirst) {
  const std::uint8_t bytes[] = {0xEF, 0xCD, 0xAB, 0x89};
  EXPECT_EQ(Load16(bytes), 0xCDEF);
  EXPECT_EQ(Load16(bytes + 2), 0x89AB);
  EXPECT_EQ(Load32(bytes), 0x89ABCDEFU);
}

TEST(LittleEndianTest, KeepsTheExtremes) {
  std::array<std::uint8_t, 4> bytes = {};
  for (const std::uint32_t value : {0x00000000U, 0x00000001U, 0x0000FFFFU, 0x00010000U, 0x7FFFFFFFU,
                                    0x80000000U, 0xFFFFFFFFU}) {
    Store32(value, bytes.data());
    EXPECT_EQ(Load32(bytes.data()), value);
  }
  constexpr std::uint16_t kWords[] = {0x0000, 0x00FF, 0x0100, 0x7FFF, 0x8000, 0xFFFF};
  for (const std::uint16_t value : kWords) {
    Store16(value, bytes.data());
    EXPECT_EQ(Load16(bytes.data()), value);
  }
}

TEST(LittleEndianTest, TouchesNoOtherByte) {
  std::array<std::uint8_t, 6> bytes = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
  Store32(0, bytes.data() + 1);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 6>{0xAA, 0, 0, 0, 0, 0xAA}));
}

}  // namespace
