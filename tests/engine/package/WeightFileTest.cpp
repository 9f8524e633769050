#include "engine/package/WeightFile.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::LittleEndian;
using testing::TemporaryFolder;
using testing::WeightFileBuilder;

constexpr std::uint32_t kFloat16Number = 1;
constexpr std::uint32_t kUInt3Number = 12;

class WeightFileTest : public ::testing::Test {
 protected:
  WeightFile Open() { return WeightFile(folder_.Write("weight.bin", builder_.bytes())); }

  /// Expects that the record at offset_ is refused as four halves.
  void ExpectRefused(const std::vector<std::string>& parts) {
    const WeightFile file = Open();
    ExpectError(Stage::Load, parts, [&] { static_cast<void>(file.Record(offset_, ElementType::Float16, {2, 2})); });
  }

  void Overwrite(std::uint64_t position, const std::string& bytes) {
    builder_.bytes().replace(static_cast<std::size_t>(position), bytes.size(), bytes);
  }

  TemporaryFolder folder_;
  WeightFileBuilder builder_;
  std::uint64_t offset_ = builder_.Add(kFloat16Number, "abcdefgh");
};

TEST_F(WeightFileTest, GivesTheBytesOfARecord) {
  const std::uint64_t second = builder_.Add(kFloat16Number, "xy");
  EXPECT_EQ(offset_, 64U);
  EXPECT_EQ(second, 192U);
  const WeightFile file = Open();
  const auto bytes = file.Record(offset_, ElementType::Float16, {2, 2});
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()), "abcdefgh");
  EXPECT_EQ(file.Record(second, ElementType::Float16, {}).size(), 2U);
}

TEST_F(WeightFileTest, DataMayLieElsewhere) {
  Overwrite(offset_ + 8, LittleEndian(6, 8) + LittleEndian(130, 8));
  const auto file = Open();
  EXPECT_EQ(static_cast<char>(file.Record(offset_, ElementType::Float16, {3}).front()), 'c');
}

TEST_F(WeightFileTest, HeaderIsChecked) {
  builder_.bytes().resize(63);
  ExpectError(Stage::Load, {"weight.bin", "has 63 bytes, expected at least 64"}, [&] { Open(); });
  builder_.bytes() = LittleEndian(1, 4) + LittleEndian(1, 4) + std::string(std::size_t{56}, '\0');
  ExpectError(Stage::Load, {"is of version 1, expected 2"}, [&] { Open(); });
}

TEST_F(WeightFileTest, MissingFileIsAFailureOfLoading) {
  ExpectError(Stage::Load, {"cannot open"}, [&] { WeightFile(folder_.path() / "nothing"); });
}

TEST_F(WeightFileTest, OffsetsOutsideAreRefused) {
  const std::uint64_t end = builder_.bytes().size();
  for (const std::uint64_t outside : {end - 8, end, end + 1, ~std::uint64_t{0}, ~std::uint64_t{0} - 63}) {
    offset_ = outside;
    ExpectRefused({"record at offset " + std::to_string(outside), "lies outside the file"});
  }
  for (const std::uint64_t low : {0, 63}) {
    offset_ = low;
    ExpectRefused({"lies within the header"});
  }
}

TEST_F(WeightFileTest, SentinelIsChecked) {
  Overwrite(offset_, LittleEndian(0xDEADBEEE, 4));
  ExpectRefused({"starts with 0xDEADBEEE, expected 0xDEADBEEF"});
}

TEST_F(WeightFileTest, TypeIsChecked) {
  Overwrite(offset_ + 4, LittleEndian(2, 4));
  ExpectRefused({"holds float32 elements, expected float16"});
  for (const std::uint64_t number : {0, 18, -1}) {
    Overwrite(offset_ + 4, LittleEndian(number, 4));
    ExpectRefused({"unknown element type number"});
  }
}

TEST_F(WeightFileTest, EveryTypeNumberHasItsType) {
  using enum ElementType;
  const ElementType types[] = {Float16, Float32, UInt8, Int8,  BFloat16, Int16,  UInt16,       Int4,      UInt1,
                               UInt2,   UInt4,   UInt3, UInt6, Int32,    UInt32, Float8E4M3FN, Float8E5M2};
  std::uint32_t number = 0;
  for (const ElementType type : types) {
    Overwrite(offset_ + 4, LittleEndian(++number, 4));
    Overwrite(offset_ + 8, LittleEndian(0, 8));
    EXPECT_TRUE(Open().Record(offset_, type, {0}).empty()) << number;
  }
}

TEST_F(WeightFileTest, SizeIsChecked) {
  for (const std::uint64_t size : {std::uint64_t{6}, std::uint64_t{10}, std::uint64_t{0}, ~std::uint64_t{0}}) {
    Overwrite(offset_ + 8, LittleEndian(size, 8));
    ExpectRefused({"holds " + std::to_string(size) + " bytes, expected 8 for float16 [2, 2]"});
  }
}

TEST_F(WeightFileTest, DataOutsideTheFileIsRefused) {
  for (const std::uint64_t position : {std::uint64_t{129}, std::uint64_t{4096}, ~std::uint64_t{0} - 3}) {
    Overwrite(offset_ + 16, LittleEndian(position, 8));
    ExpectRefused({"its 8 bytes at " + std::to_string(position) + " reach outside the file"});
  }
}

TEST_F(WeightFileTest, UnusedBitsMatterBelowOneByteOnly) {
  Overwrite(offset_ + 24, LittleEndian(0x1234, 8));
  EXPECT_EQ(Open().Record(offset_, ElementType::Float16, {4}).size(), 8U);

  const std::uint64_t bits = builder_.Add(kUInt3Number, "ab", 7);
  EXPECT_EQ(Open().Record(bits, ElementType::UInt3, {3}).size(), 2U);
  ExpectError(Stage::Load, {"leaves 7 bits unused, expected 4 for uint3 [4]"},
              [&] { static_cast<void>(Open().Record(bits, ElementType::UInt3, {4})); });
}

}  // namespace
}  // namespace ulmora::engine::package
