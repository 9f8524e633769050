#include "engine/package/ByteReader.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

namespace ulmora::engine::package {
namespace {

constexpr std::array<std::byte, 13> kBytes = {std::byte{0x78}, std::byte{0x56}, std::byte{0x34}, std::byte{0x12},
                                              std::byte{0xEF}, std::byte{0xCD}, std::byte{0xAB}, std::byte{0x90},
                                              std::byte{0x78}, std::byte{0x56}, std::byte{0x34}, std::byte{0x12},
                                              std::byte{0xFF}};

TEST(ByteReader, NumbersAreLittleEndianAndFollowEachOther) {
  ByteReader reader(kBytes);
  EXPECT_EQ(reader.U32(), 0x12345678U);
  EXPECT_EQ(reader.U64(), 0x1234567890ABCDEFU);
}

TEST(ByteReader, ReadsBeyondTheEndGiveNothingAndDoNotMove) {
  ByteReader reader(kBytes);
  EXPECT_TRUE(reader.Skip(8));
  EXPECT_EQ(reader.U64(), std::nullopt);
  EXPECT_FALSE(reader.Skip(6));
  EXPECT_FALSE(reader.Skip(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(reader.U32(), 0x12345678U);
  EXPECT_EQ(reader.U32(), std::nullopt);
  EXPECT_TRUE(reader.Skip(1));
  EXPECT_FALSE(reader.Skip(1));
}

TEST(Slice, StaysWithinTheBytes) {
  ASSERT_TRUE(Slice(kBytes, 0, 13).has_value());
  EXPECT_EQ(Slice(kBytes, 12, 1)->front(), std::byte{0xFF});
  EXPECT_TRUE(Slice(kBytes, 13, 0).has_value());
  EXPECT_FALSE(Slice(kBytes, 13, 1).has_value());
  EXPECT_FALSE(Slice(kBytes, 14, 0).has_value());
}

TEST(Slice, SumsThatWrapAroundAreOutside) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  EXPECT_FALSE(Slice(kBytes, kLargest, 2).has_value());
  EXPECT_FALSE(Slice(kBytes, 2, kLargest).has_value());
  EXPECT_FALSE(Slice(kBytes, kLargest - 3, 4).has_value());
}

}  // namespace
}  // namespace ulmora::engine::package
