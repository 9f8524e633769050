#include "engine/package/ElementDecoding.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

namespace ulmora::engine::package {
namespace {

using ::testing::ElementsAre;
using testing::LittleEndian;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

Tensor Decode(const std::string& bytes, ElementType type, Shape shape) {
  return DecodeElements(std::as_bytes(std::span(bytes)), type, std::move(shape));
}

std::vector<float> Floats(const std::string& bytes, ElementType type, std::int64_t count) {
  const Tensor tensor = Decode(bytes, type, {count});
  EXPECT_EQ(tensor.element(), type);
  return {tensor.floats().begin(), tensor.floats().end()};
}

std::vector<std::int32_t> Ints(const std::string& bytes, ElementType type, std::int64_t count) {
  const Tensor tensor = Decode(bytes, type, {count});
  EXPECT_EQ(tensor.element(), type);
  return {tensor.ints().begin(), tensor.ints().end()};
}

std::string Words(const std::vector<std::uint64_t>& values, int size) {
  std::string bytes;
  for (const std::uint64_t value : values) bytes += LittleEndian(value, size);
  return bytes;
}

TEST(ElementDecoding, HalvesOfEveryKind) {
  const std::string bytes = Words({0x0000, 0x3C00, 0xC000, 0x7BFF, 0x0001, 0x83FF, 0x0400, 0x7C00, 0xFC00}, 2);
  EXPECT_THAT(Floats(bytes, ElementType::Float16, 9),
              ElementsAre(0.0F, 1.0F, -2.0F, 65504.0F, 0x1p-24F, -1023 * 0x1p-24F, 0x1p-14F, kInfinity, -kInfinity));
  EXPECT_TRUE(std::isnan(Floats(Words({0x7E00}, 2), ElementType::Float16, 1)[0]));
  EXPECT_TRUE(std::signbit(Floats(Words({0x8000}, 2), ElementType::Float16, 1)[0]));
}

TEST(ElementDecoding, EveryFiniteHalfMatchesItsDefinition) {
  for (std::uint32_t bits = 0; bits < 0x10000; ++bits) {
    const int exponent = static_cast<int>(bits >> 10) & 0x1F;
    if (exponent == 0x1F) continue;
    const int mantissa = static_cast<int>(bits & 0x3FF) + (exponent == 0 ? 0 : 0x400);
    const double magnitude = std::ldexp(mantissa, (exponent == 0 ? 1 : exponent) - 25);
    const double expected = (bits & 0x8000) != 0 ? -magnitude : magnitude;
    ASSERT_EQ(Floats(Words({bits}, 2), ElementType::Float16, 1)[0], expected) << bits;
  }
}

TEST(ElementDecoding, BrainFloatsAreTheUpperHalves) {
  EXPECT_THAT(Floats(Words({0x3F80, 0xC049, 0x7F80}, 2), ElementType::BFloat16, 3),
              ElementsAre(1.0F, -3.140625F, kInfinity));
}

TEST(ElementDecoding, EightBitFloats) {
  EXPECT_THAT(Floats(Words({0x00, 0x38, 0xB8, 0x7E, 0x01, 0x08}, 1), ElementType::Float8E4M3FN, 6),
              ElementsAre(0.0F, 1.0F, -1.0F, 448.0F, 0x1p-9F, 0x1p-6F));
  EXPECT_TRUE(std::isnan(Floats(Words({0xFF}, 1), ElementType::Float8E4M3FN, 1)[0]));
  EXPECT_THAT(Floats(Words({0x3C, 0xC0, 0x7B, 0x01, 0x7C}, 1), ElementType::Float8E5M2, 5),
              ElementsAre(1.0F, -2.0F, 57344.0F, 0x1p-16F, kInfinity));
}

TEST(ElementDecoding, SinglesAreTakenAndDoublesAreNarrowed) {
  EXPECT_THAT(Floats(Words({0x3FC00000, 0x80000001}, 4), ElementType::Float32, 2), ElementsAre(1.5F, -0x1p-149F));
  const std::string doubles = Words({0x3FF8000000000000, 0x7FE0000000000000, 0xFFE0000000000000}, 8);
  EXPECT_THAT(Floats(doubles, ElementType::Float64, 3), ElementsAre(1.5F, kInfinity, -kInfinity));
}

TEST(ElementDecoding, IntegersKeepTheirSign) {
  EXPECT_THAT(Ints(Words({0x7F, 0x80, 0xFF}, 1), ElementType::Int8, 3), ElementsAre(127, -128, -1));
  EXPECT_THAT(Ints(Words({0x7F, 0x80, 0xFF}, 1), ElementType::UInt8, 3), ElementsAre(127, 128, 255));
  EXPECT_THAT(Ints(Words({0x8000, 0x7FFF}, 2), ElementType::Int16, 2), ElementsAre(-32768, 32767));
  EXPECT_THAT(Ints(Words({0x8000, 0xFFFF}, 2), ElementType::UInt16, 2), ElementsAre(32768, 65535));
  EXPECT_THAT(Ints(Words({0xFFFFFFFE, 5}, 4), ElementType::Int32, 2), ElementsAre(-2, 5));
}

TEST(ElementDecoding, WideIntegersSaturate) {
  constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();
  const std::vector<std::uint64_t> wide = {7, 0x8000000000000000, 0x7FFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF};
  EXPECT_THAT(Ints(Words(wide, 8), ElementType::Int64, 4), ElementsAre(7, kLowest, kHighest, -1));
  EXPECT_THAT(Ints(Words(wide, 8), ElementType::UInt64, 4), ElementsAre(7, kHighest, kHighest, kHighest));
  EXPECT_THAT(Ints(Words({0xFFFFFFFF, 9}, 4), ElementType::UInt32, 2), ElementsAre(kHighest, 9));
}

TEST(ElementDecoding, BitsComeLowestFirst) {
  EXPECT_THAT(Ints("\x6C\x03", ElementType::UInt2, 5), ElementsAre(0, 3, 2, 1, 3));
  EXPECT_THAT(Ints("\x05", ElementType::UInt1, 3), ElementsAre(1, 0, 1));
  EXPECT_THAT(Ints("\x2F", ElementType::UInt4, 2), ElementsAre(15, 2));
  EXPECT_THAT(Ints("\x87", ElementType::Int4, 2), ElementsAre(7, -8));
}

/// Writes elements of `bits` bits as one stream, lowest bit first.
std::string Pack(const std::vector<std::int32_t>& values, int bits) {
  std::string bytes((values.size() * static_cast<std::size_t>(bits) + 7) / 8, '\0');
  std::size_t position = 0;
  for (const std::int32_t value : values) {
    for (int bit = 0; bit < bits; ++bit, ++position) {
      if (((value >> bit) & 1) != 0)
        bytes[position / 8] = static_cast<char>(bytes[position / 8] | (1 << (position % 8)));
    }
  }
  return bytes;
}

TEST(ElementDecoding, ElementsThatStraddleBytesComeBack) {
  std::mt19937 random(5);
  const std::pair<ElementType, int> types[] = {{ElementType::UInt1, 1},
                                               {ElementType::UInt2, 2},
                                               {ElementType::UInt3, 3},
                                               {ElementType::UInt4, 4},
                                               {ElementType::UInt6, 6}};
  for (const auto& [type, bits] : types) {
    for (std::int64_t count = 1; count < 40; ++count) {
      std::vector<std::int32_t> values(static_cast<std::size_t>(count));
      for (std::int32_t& value : values) value = static_cast<std::int32_t>(random() & ((1U << bits) - 1));
      ASSERT_EQ(Ints(Pack(values, bits), type, count), values) << bits << " bits, " << count << " elements";
    }
  }
}

TEST(ElementDecoding, PackedBytesRoundUp) {
  EXPECT_EQ(PackedBytes(ElementType::UInt3, 3), 2);
  EXPECT_EQ(PackedBytes(ElementType::UInt1, 8), 1);
  EXPECT_EQ(PackedBytes(ElementType::UInt1, 9), 2);
  EXPECT_EQ(PackedBytes(ElementType::Float16, 3), 6);
  EXPECT_EQ(PackedBytes(ElementType::UInt64, std::int64_t{1} << 31), std::int64_t{1} << 34);
  EXPECT_EQ(PackedBytes(ElementType::Float32, 0), 0);
}

TEST(ElementDecoding, ScalarsAndEmptyTensors) {
  EXPECT_THAT(Decode(Words({0x3C00}, 2), ElementType::Float16, {}).floats(), ElementsAre(1.0F));
  EXPECT_EQ(Decode("", ElementType::Float32, {0, 4}).count(), 0);
}

TEST(ElementDecoding, WrongSizesAndTypesAreProgrammingErrors) {
  EXPECT_THROW(static_cast<void>(Decode("abc", ElementType::Float16, {2})), std::logic_error);
  EXPECT_THROW(static_cast<void>(Decode("a", ElementType::Bool, {1})), std::logic_error);
}

}  // namespace
}  // namespace ulmora::engine::package
