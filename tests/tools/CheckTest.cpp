#include "tests/support/TemporaryFolder.h"
#include "tools/Check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <stdexcept>

namespace ulmora::tools {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

Difference Of(const std::vector<float>& found, const std::vector<float>& recorded) {
  return Compare(found, recorded);
}

TEST(Compare, LargestDifferenceAndWhereItIs) {
  const Difference difference = Of({1, 2, 3.5, 4}, {1, 2.25, 3, 5});
  EXPECT_EQ(difference.largest, 1);
  EXPECT_EQ(difference.index, 3U);
  EXPECT_EQ(difference.range, 4);
  EXPECT_EQ(difference.Share(), 0.25);
}

TEST(Compare, WithoutARangeTheDifferenceItself) {
  EXPECT_EQ(Of({2.5F}, {2}).Share(), 0.5);
  EXPECT_EQ(Of({2}, {2}).Share(), 0);
}

TEST(Compare, ValuesThatAreNotFinite) {
  EXPECT_EQ(Of({kNan, kInfinity, 1}, {kNan, kInfinity, 1}).largest, 0);
  EXPECT_EQ(Of({1, 0}, {kNan, 1}).Share(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(Of({kNan, 0}, {1, 0}).largest, std::numeric_limits<double>::infinity());
  EXPECT_EQ(Of({-kInfinity}, {kInfinity}).largest, std::numeric_limits<double>::infinity());
}

class ReadFloatsTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& bytes) const {
    std::ofstream(folder_.Path("values"), std::ios::binary) << bytes;
    return folder_.Path("values");
  }

  test::TemporaryFolder folder_;
};

TEST_F(ReadFloatsTest, LittleEndian) {
  EXPECT_THAT(ReadFloats(Write(std::string("\0\0\x80\x3F\0\0\0\xBF", 8))), ::testing::ElementsAre(1.0F, -0.5F));
}

TEST_F(ReadFloatsTest, MoreThanOneBuffer) {
  const std::vector<float> values = ReadFloats(Write(std::string(400'000, '\0')));
  EXPECT_EQ(values.size(), 100'000U);
}

TEST_F(ReadFloatsTest, Refused) {
  EXPECT_THROW(static_cast<void>(ReadFloats(folder_.Path("gone"))), std::runtime_error);
  EXPECT_THROW(static_cast<void>(ReadFloats(Write(""))), std::runtime_error);
  EXPECT_THROW(static_cast<void>(ReadFloats(Write("12345"))), std::runtime_error);
  EXPECT_THROW(static_cast<void>(ReadFloats(folder_.Path("."))), std::runtime_error);
}

}  // namespace
}  // namespace ulmora::tools
