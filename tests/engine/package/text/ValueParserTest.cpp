#include "engine/package/text/ValueParser.h"
#include "tests/engine/package/text/TextTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::package::text {
namespace {

using package::testing::ExpectError;
using package::testing::LittleEndian;
using package::testing::TemporaryFolder;
using package::testing::WeightFileBuilder;
using ::testing::ElementsAre;

std::optional<Tensor> Parse(const std::string& text) {
  testing::NoConstants constants;
  return testing::ParseAll(text, [&](Lexer& lexer) { return ParseValue(lexer, constants.reader()); });
}

float FloatOf(const std::string& text) {
  return Parse(text).value().floats()[0];
}

std::int32_t IntOf(const std::string& text) {
  return Parse(text).value().ints()[0];
}

void ExpectRefused(const std::string& text, const std::string& message, Stage stage = Stage::Open) {
  ExpectError(stage, {message}, [&] { static_cast<void>(Parse(text)); });
}

TEST(ValueParser, ScalarsOfBothDialects) {
  EXPECT_EQ(Parse("string(\"same\")")->strings()[0], "same");
  EXPECT_EQ(Parse("tensor<string, []>(\"same\")")->strings()[0], "same");
  EXPECT_EQ(Parse("bool(true)")->bools()[0], 1);
  EXPECT_EQ(Parse("tensor<bool, []>(false)")->bools()[0], 0);
  EXPECT_EQ(Parse("int32(-7)")->type(), (TensorType{ElementType::Int32, {}, true}));
  EXPECT_EQ(IntOf("int32(-7)"), -7);
}

TEST(ValueParser, FloatsInEveryNotation) {
  EXPECT_EQ(FloatOf("fp32(0x1p+0)"), 1.0F);
  EXPECT_EQ(FloatOf("fp32(-0x1.8p-2)"), -0.375F);
  EXPECT_EQ(FloatOf("fp32(0x1.99999ap-4)"), 0.1F);
  EXPECT_EQ(FloatOf("fp32(0.1)"), 0.1F);
  EXPECT_EQ(FloatOf("fp32(+1e-3)"), 1e-3F);
  EXPECT_EQ(FloatOf("fp32(3)"), 3.0F);
  EXPECT_EQ(FloatOf("fp32(0x1p-149)"), std::numeric_limits<float>::denorm_min());
  EXPECT_EQ(FloatOf("fp32(inf)"), std::numeric_limits<float>::infinity());
  EXPECT_EQ(FloatOf("fp16(-inf)"), -std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(FloatOf("fp32(nan)")));
  EXPECT_TRUE(std::signbit(FloatOf("fp32(-0)")));
  EXPECT_EQ(FloatOf("fp64(0x1.0000000000001p+0)"), 1.0F);
}

TEST(ValueParser, NarrowFloatsAreRoundedToTheirType) {
  EXPECT_EQ(FloatOf("fp16(0.1)"), 0x1.998p-4F);
  EXPECT_EQ(FloatOf("fp16(0x1.002p+0)"), 1.0F);  // a tie, to even
  EXPECT_EQ(FloatOf("fp16(0x1.006p+0)"), 0x1.008p0F);
  EXPECT_EQ(FloatOf("fp16(0x1p-24)"), 0x1p-24F);
  EXPECT_EQ(FloatOf("fp16(0x1p-26)"), 0.0F);
  EXPECT_EQ(FloatOf("fp16(65504)"), 65504.0F);
  EXPECT_EQ(FloatOf("fp16(65519)"), 65504.0F);
  EXPECT_EQ(FloatOf("fp16(65520)"), std::numeric_limits<float>::infinity());
  EXPECT_EQ(FloatOf("fp16(-1e9)"), -std::numeric_limits<float>::infinity());
  EXPECT_EQ(FloatOf("bf16(1.01)"), 0x1.02p0F);
  EXPECT_EQ(FloatOf("fp8e4m3fn(448)"), 448.0F);
  EXPECT_TRUE(std::isnan(FloatOf("fp8e4m3fn(480)")));
  EXPECT_EQ(FloatOf("fp8e5m2(0.3)"), 0.3125F);
  EXPECT_EQ(Parse("fp16(0.1)")->element(), ElementType::Float16);
}

TEST(ValueParser, Integers) {
  EXPECT_EQ(IntOf("int8(-128)"), -128);
  EXPECT_EQ(IntOf("uint8(255)"), 255);
  EXPECT_EQ(IntOf("int4(-8)"), -8);
  EXPECT_EQ(IntOf("uint6(63)"), 63);
  EXPECT_EQ(IntOf("uint32(4294967295)"), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(IntOf("int64(-9223372036854775808)"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(IntOf("uint64(18446744073709551615)"), std::numeric_limits<std::int32_t>::max());
  for (const char* text :
       {"int8(128)", "int8(-129)", "uint8(-1)", "uint8(256)", "uint1(2)", "int4(8)", "uint3(8)", "int32(2147483648)",
        "uint64(-1)", "int64(9223372036854775808)", "int32(1.0)", "int32(+1)", "int32(0x10)", "int32(one)",
        "int32(\"1\")", "int32(true)", "uint64(18446744073709551616)"}) {
    ExpectRefused(text, " is no ");
  }
}

TEST(ValueParser, NestedLists) {
  const Tensor matrix = Parse("tensor<int32, [2, 3]>([[1, 2, 3], [4, 5, 6]])").value();
  EXPECT_EQ(matrix.shape(), (Shape{2, 3}));
  EXPECT_THAT(matrix.ints(), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(Parse("tensor<fp16, [1, 1, 2]>([[[0x1p+0, 0x1p-1]]])")->floats(), ElementsAre(1.0F, 0.5F));
  EXPECT_THAT(Parse("tensor<bool, [2]>([true, false])")->bools(), ElementsAre(1, 0));
  EXPECT_THAT(Parse("tensor<string, [2]>([\"a\", \"b\"])")->strings(), ElementsAre("a", "b"));
}

TEST(ValueParser, TensorsWithoutElements) {
  EXPECT_EQ(Parse("tensor<int32, [0]>([])")->shape(), (Shape{0}));
  EXPECT_EQ(Parse("tensor<fp32, [2, 0]>([[], []])")->count(), 0);
  EXPECT_EQ(Parse("tensor<fp32, [2, 0]>([])")->count(), 0);
  EXPECT_EQ(Parse("tensor<fp32, [0, 2]>([])")->count(), 0);
  // Nobody counts to two billion for nothing.
  EXPECT_EQ(Parse("tensor<fp32, [2147483648, 0]>([])")->count(), 0);
}

TEST(ValueParser, ValuesOfOtherTypesAreSkipped) {
  EXPECT_FALSE(Parse("dict<string, string>({{\"a\", \"b\"}, {\"c\", \")\"}})").has_value());
  EXPECT_FALSE(Parse("tuple<string, int32>((\"a\", 1))").has_value());
}

TEST(ValueParser, ListsThatDoNotFitTheirType) {
  ExpectRefused("tensor<int32, [2]>([1])",
                "line 1, column 20: the list has 1 instead of 2 entries in dimension 0 of int32 [2]");
  ExpectRefused("tensor<int32, [2]>([1, 2, 3])", "the list has more than 2 entries");
  ExpectRefused("tensor<int32, [2, 2]>([[1, 2], [3]])",
                "line 1, column 32: the list has 1 instead of 2 entries in dimension 1");
  ExpectRefused("tensor<int32, [2]>([[1, 2]])", "'[' is no int32");
  ExpectRefused("tensor<int32, [1, 1]>([1])", "expected '[', found '1'");
  ExpectRefused("tensor<int32, []>([1])", "'[' is no int32");
  ExpectRefused("tensor<int32, [1]>(1)", "expected '[', found '1'");
  ExpectRefused("tensor<int32, [2]>([1 2])", "expected ']', found '2'");
  ExpectRefused("tensor<int32, [2]>([1,])", "']' is no int32");
  ExpectRefused("tensor<int32, [1]>([1]", "expected ')', found the end of the text");
  ExpectRefused("tensor<int32, [1]>([", "'' is no int32");
  ExpectRefused("int32()", "')' is no int32");
  ExpectRefused("int32(1, 2)", "expected ')', found ','");
  ExpectRefused("int32", "expected '('");
}

TEST(ValueParser, WordsThatAreNoFloats) {
  for (const char* text : {"fp32(one)", "fp32(0x)", "fp32(0x1.8q3)", "fp32(1.2.3)", "fp32(--1)", "fp32(-)", "fp32(1f)",
                           "fp32(\"1\")", "fp32(0x-1p0)", "fp32(1e999)", "fp32(?)", "fp32(true)"}) {
    ExpectError(Stage::Open, {"line 1, column 6: "}, [&] { static_cast<void>(Parse(text)); });
  }
}

TEST(ValueParser, WordsThatAreNoBoolsOrStrings) {
  ExpectRefused("bool(1)", "'1' is no bool");
  ExpectRefused("bool(yes)", "'yes' is no bool");
  ExpectRefused("string(yes)", "'yes' is no string");
  ExpectRefused("string(1)", "'1' is no string");
}

TEST(ValueParser, OpenShapesAreNoConstants) {
  ExpectRefused("tensor<int32, [?]>([1])", "is a constant whose shape is not known");
}

TEST(ValueParser, AbsurdShapesAreRefusedBeforeAnythingIsTaken) {
  ExpectRefused("tensor<fp32, [65536, 65536]>([])", "line 1, column 1: tensor shape [65536, 65536] has more than",
                Stage::Translate);
  ExpectRefused("tensor<fp32, [65536, 32768]>([])", "line 1, column 1: constants of more than", Stage::Load);
}

class Records : public ::testing::Test {
 protected:
  std::optional<Tensor> Parse(const std::string& text) {
    ConstantReader reader(bundle_);
    return testing::ParseAll(text, [&](Lexer& lexer) { return ParseValue(lexer, reader); });
  }

  void ExpectRefused(const std::string& text, const std::string& message, Stage stage = Stage::Open) {
    ExpectError(stage, {message}, [&] { static_cast<void>(Parse(text)); });
  }

  void SetUp() override {
    WeightFileBuilder weights;
    weights.Add(1, LittleEndian(0x3C00, 2) + LittleEndian(0xB800, 2));
    folder_.Write("weights/weight.bin", weights.bytes());
  }

  TemporaryFolder folder_;
  Bundle bundle_{folder_.path() / "model.mil", BundleForm::Compiled};
};

TEST_F(Records, OfBothDialects) {
  const Tensor newer = Parse(
                           "tensor<fp16, [2]>(BLOBFILE(path = string(\"@model_path/weights/weight.bin\"), "
                           "offset = uint64(64)))")
                           .value();
  EXPECT_THAT(newer.floats(), ElementsAre(1.0F, -0.5F));
  const Tensor older =
      Parse(
          "tensor<fp16, [1, 2]>(BLOBFILE(path = tensor<string, []>(\"@model_path/weights/weight.bin\"), "
          "offset = tensor<uint64, []>(64)))")
          .value();
  EXPECT_EQ(older.shape(), (Shape{1, 2}));
  EXPECT_THAT(older.floats(), ElementsAre(1.0F, -0.5F));
}

TEST_F(Records, Malformed) {
  const auto record = [](const std::string& inside) { return "tensor<fp16, [2]>(BLOBFILE(" + inside + "))"; };
  const std::string path = "path = string(\"weights/weight.bin\")";
  ExpectRefused(record(""), "expected 'path', found ')'");
  ExpectRefused(record("offset = uint64(64)"), "expected 'path', found 'offset'");
  ExpectRefused(record(path), "expected ',', found ')'");
  ExpectRefused(record(path + ", offset = int32(64)"), "expected a scalar of type uint64");
  ExpectRefused(record(path + ", offset = tensor<uint64, [1]>([64])"), "expected a scalar of type uint64");
  ExpectRefused(record(path + ", offset = uint64(-64)"), "'-64' is no uint64");
  ExpectRefused(record(path + ", offset = uint64(64), more = uint64(1)"), "expected ')', found ','");
  ExpectRefused(record("path = uint64(1), offset = uint64(64)"), "expected a scalar of type string");
  ExpectRefused(record("path string(\"a\"), offset = uint64(64)"), "expected '=', found 'string'");
  ExpectRefused("tensor<fp16, [2]>(BLOBFILE)", "expected '(', found ')'");
}

TEST_F(Records, FailuresOfTheFileNameThePosition) {
  const auto record = [](const std::string& type, const std::string& path, const std::string& offset) {
    return type + "(BLOBFILE(path = string(\"" + path + "\"), offset = uint64(" + offset + ")))";
  };
  ExpectRefused(record("tensor<fp16, [2]>", "weights/weight.bin", "65"), "line 1, column 19: record at offset 65",
                Stage::Load);
  ExpectRefused(record("tensor<fp32, [2]>", "weights/weight.bin", "64"), "holds float16 elements, expected float32",
                Stage::Load);
  ExpectRefused(record("tensor<fp16, [2]>", "../weight.bin", "64"), "does not lie within the package", Stage::Load);
  ExpectRefused(record("tensor<fp16, [2]>", "gone.bin", "64"), "is missing", Stage::Load);
  ExpectRefused(record("tensor<string, [2]>", "weights/weight.bin", "64"), "expected string", Stage::Load);
}

}  // namespace
}  // namespace ulmora::engine::package::text
