#include "engine/package/ImmediateValue.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <limits>

namespace ulmora::engine::package {
namespace {

using coreml::TensorValue;
using ::testing::ElementsAre;
using testing::ExpectError;
using testing::LittleEndian;

TensorType Type(ElementType element, Shape shape) {
  return {element, std::move(shape), true};
}

TEST(ImmediateValue, FloatsIntsBoolsAndStrings) {
  TensorValue floats;
  floats.mutable_floats()->add_values(0.5F);
  floats.mutable_floats()->add_values(-2.0F);
  EXPECT_THAT(DecodeImmediate(floats, Type(ElementType::Float32, {2})).floats(), ElementsAre(0.5F, -2.0F));

  TensorValue ints;
  ints.mutable_ints()->add_values(-7);
  const Tensor tensor = DecodeImmediate(ints, Type(ElementType::Int16, {1, 1}));
  EXPECT_THAT(tensor.ints(), ElementsAre(-7));
  EXPECT_EQ(tensor.element(), ElementType::Int16);
  EXPECT_EQ(tensor.shape(), (Shape{1, 1}));

  TensorValue bools;
  bools.mutable_bools()->add_values(true);
  bools.mutable_bools()->add_values(false);
  EXPECT_THAT(DecodeImmediate(bools, Type(ElementType::Bool, {2})).bools(), ElementsAre(1, 0));

  TensorValue strings;
  strings.mutable_strings()->add_values("same");
  EXPECT_THAT(DecodeImmediate(strings, Type(ElementType::String, {})).strings(), ElementsAre("same"));
}

TEST(ImmediateValue, WideNumbersAreNarrowed) {
  TensorValue longs;
  longs.mutable_longints()->add_values(std::numeric_limits<std::int64_t>::max());
  EXPECT_THAT(DecodeImmediate(longs, Type(ElementType::Int64, {})).ints(),
              ElementsAre(std::numeric_limits<std::int32_t>::max()));
  TensorValue doubles;
  doubles.mutable_doubles()->add_values(1e300);
  EXPECT_THAT(DecodeImmediate(doubles, Type(ElementType::Float64, {})).floats(),
              ElementsAre(std::numeric_limits<float>::infinity()));
}

TEST(ImmediateValue, PackedBytes) {
  TensorValue halves;
  halves.mutable_bytes()->set_values(LittleEndian(0x3C00, 2) + LittleEndian(0xC000, 2));
  EXPECT_THAT(DecodeImmediate(halves, Type(ElementType::Float16, {2})).floats(), ElementsAre(1.0F, -2.0F));
  TensorValue bits;
  bits.mutable_bytes()->set_values("\x6C\x03");
  EXPECT_THAT(DecodeImmediate(bits, Type(ElementType::UInt2, {5})).ints(), ElementsAre(0, 3, 2, 1, 3));
}

TEST(ImmediateValue, ScalarsAndEmptyTensors) {
  TensorValue floats;
  floats.mutable_floats();
  EXPECT_EQ(DecodeImmediate(floats, Type(ElementType::Float32, {0})).count(), 0);
  ExpectError(Stage::Open, {"has 0 elements, expected 1 for float32 []"},
              [&] { static_cast<void>(DecodeImmediate(floats, Type(ElementType::Float32, {}))); });
}

TEST(ImmediateValue, CountMustMatchTheShape) {
  TensorValue ints;
  ints.mutable_ints()->add_values(1);
  ExpectError(Stage::Open, {"has 1 elements, expected 2147483648 for int32 [2147483648]"},
              [&] { static_cast<void>(DecodeImmediate(ints, Type(ElementType::Int32, {std::int64_t{1} << 31}))); });
  TensorValue bytes;
  bytes.mutable_bytes()->set_values("abc");
  ExpectError(Stage::Open, {"has 3 bytes, expected 4 for float16 [2]"},
              [&] { static_cast<void>(DecodeImmediate(bytes, Type(ElementType::Float16, {2}))); });
}

TEST(ImmediateValue, KindMustMatchTheType) {
  const TensorValue nothing;
  ExpectError(Stage::Open, {"holds nothing, expected elements of type float32"},
              [&] { static_cast<void>(DecodeImmediate(nothing, Type(ElementType::Float32, {}))); });
  TensorValue ints;
  ints.mutable_ints()->add_values(1);
  ExpectError(Stage::Open, {"holds ints, expected elements of type float32"},
              [&] { static_cast<void>(DecodeImmediate(ints, Type(ElementType::Float32, {}))); });
  TensorValue bytes;
  bytes.mutable_bytes()->set_values("a");
  ExpectError(Stage::Open, {"holds bytes, expected elements of type bool"},
              [&] { static_cast<void>(DecodeImmediate(bytes, Type(ElementType::Bool, {}))); });
}

}  // namespace
}  // namespace ulmora::engine::package
