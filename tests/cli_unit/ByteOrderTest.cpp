#include "cli/ByteOrder.h"

#include <gtest/gtest.h>

#include <vector>

namespace ulmora::cli {
namespace {

const std::uint8_t kBytes[8] = {0x01, 0x82, 0x03, 0x84, 0x05, 0x86, 0x07, 0x88};

TEST(ByteOrder, ReadsLittleEndian) {
  EXPECT_EQ(Read16(kBytes, true), 0x8201u);
  EXPECT_EQ(Read32(kBytes, true), 0x84038201u);
  EXPECT_EQ(Read64(kBytes, true), 0x8807860584038201u);
}

TEST(ByteOrder, ReadsBigEndian) {
  EXPECT_EQ(Read16(kBytes, false), 0x0182u);
  EXPECT_EQ(Read32(kBytes, false), 0x01820384u);
  EXPECT_EQ(Read64(kBytes, false), 0x0182038405860788u);
}

TEST(ByteOrder, WritesWhatItReadsAndNothingBeside) {
  for (const bool littleEndian : {true, false}) {
    std::vector<std::uint8_t> bytes(10, 0xAA);
    Write64(&bytes[1], Read64(kBytes, littleEndian), littleEndian);
    EXPECT_EQ(std::vector<std::uint8_t>(kBytes, kBytes + 8), std::vector<std::uint8_t>(&bytes[1], &bytes[9]));
    EXPECT_EQ(bytes.front(), 0xAA);
    EXPECT_EQ(bytes.back(), 0xAA);

    bytes.assign(6, 0xAA);
    Write32(&bytes[1], Read32(kBytes, littleEndian), littleEndian);
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{0xAA, 0x01, 0x82, 0x03, 0x84, 0xAA}));

    bytes.assign(4, 0xAA);
    Write16(&bytes[1], Read16(kBytes, littleEndian), littleEndian);
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{0xAA, 0x01, 0x82, 0xAA}));
  }
}

}  // namespace
}  // namespace ulmora::cli
