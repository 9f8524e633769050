#include "engine/package/text/TypeParser.h"
#include "tests/engine/package/text/TextTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package::text {
namespace {

using package::testing::ExpectError;

TextType Parse(const std::string& text) {
  return testing::ParseAll(text, ParseType);
}

void ExpectRefused(const std::string& text, const std::string& message) {
  ExpectError(Stage::Open, {message}, [&] { static_cast<void>(Parse(text)); });
}

TEST(TypeParser, Tensors) {
  EXPECT_EQ(Parse("tensor<fp32, [1, 3, 8, 16]>").type, (TensorType{ElementType::Float32, {1, 3, 8, 16}, true}));
  EXPECT_EQ(Parse("tensor<int32, []>").type, (TensorType{ElementType::Int32, {}, true}));
  EXPECT_EQ(Parse("tensor<fp16, [1, ?]>").type, (TensorType{ElementType::Float16, {1, kUnknownDim}, true}));
  EXPECT_EQ(Parse("tensor<bool, [0]>").type, (TensorType{ElementType::Bool, {0}, true}));
  EXPECT_TRUE(Parse("tensor<bool, [0]>").isTensor);
}

TEST(TypeParser, ABareElementTypeIsAScalar) {
  EXPECT_EQ(Parse("string").type, (TensorType{ElementType::String, {}, true}));
  EXPECT_EQ(Parse("uint64").type, (TensorType{ElementType::UInt64, {}, true}));
}

TEST(TypeParser, EveryElementType) {
  const std::pair<const char*, ElementType> words[] = {{"bool", ElementType::Bool},
                                                       {"string", ElementType::String},
                                                       {"fp16", ElementType::Float16},
                                                       {"fp32", ElementType::Float32},
                                                       {"fp64", ElementType::Float64},
                                                       {"bf16", ElementType::BFloat16},
                                                       {"fp8e4m3fn", ElementType::Float8E4M3FN},
                                                       {"fp8e5m2", ElementType::Float8E5M2},
                                                       {"int4", ElementType::Int4},
                                                       {"int8", ElementType::Int8},
                                                       {"int16", ElementType::Int16},
                                                       {"int32", ElementType::Int32},
                                                       {"int64", ElementType::Int64},
                                                       {"uint1", ElementType::UInt1},
                                                       {"uint2", ElementType::UInt2},
                                                       {"uint3", ElementType::UInt3},
                                                       {"uint4", ElementType::UInt4},
                                                       {"uint6", ElementType::UInt6},
                                                       {"uint8", ElementType::UInt8},
                                                       {"uint16", ElementType::UInt16},
                                                       {"uint32", ElementType::UInt32},
                                                       {"uint64", ElementType::UInt64}};
  for (const auto& [word, element] : words) {
    EXPECT_EQ(Parse(word).type.element, element) << word;
    EXPECT_TRUE(IsTypeWord(word)) << word;
  }
  EXPECT_TRUE(IsTypeWord("tensor"));
  EXPECT_TRUE(IsTypeWord("dict"));
  EXPECT_FALSE(IsTypeWord("conv"));
}

TEST(TypeParser, OtherTypesAreMarkedAndSkipped) {
  for (const char* text : {"list<string, 3>", "list<tensor<fp32, [1]>, ?>", "tuple<string, dict<string, int32>>",
                           "dict<tensor<string, []>, tensor<string, []>>", "state<tensor<fp16, [1, 8]>>"}) {
    EXPECT_FALSE(Parse(text).isTensor) << text;
  }
}

TEST(TypeParser, RemarksOfTheCompilerAreLeftOut) {
  EXPECT_EQ(Parse("tensor<fp16, [1, 3], [64, 64]>").type.shape, (Shape{1, 3}));
  EXPECT_EQ(Parse("tensor<fp16, [1, 3], align = <64>>").type.shape, (Shape{1, 3}));
  EXPECT_EQ(Parse("tensor<fp16, [1, 3]>[alignment = uint64(64)]").type.shape, (Shape{1, 3}));
}

TEST(TypeParser, MalformedTypes) {
  ExpectRefused("", "line 1, column 1: expected a type, found the end of the text");
  ExpectRefused("3", "expected a type, found '3'");
  ExpectRefused("fp17", "line 1, column 1: unknown element type 'fp17'");
  ExpectRefused("tensor", "expected '<'");
  ExpectRefused("tensor<>", "expected an element type, found '>'");
  ExpectRefused("tensor<fp99, [1]>", "line 1, column 8: unknown element type 'fp99'");
  ExpectRefused("tensor<fp32 [1]>", "expected ',', found '['");
  ExpectRefused("tensor<fp32, 1>", "expected '[', found '1'");
  ExpectRefused("tensor<fp32, [1 2]>", "expected ']', found '2'");
  ExpectRefused("tensor<fp32, [1,]>", "expected a dimension, found ']'");
  ExpectRefused("tensor<fp32, [x]>", "expected a dimension, found 'x'");
  ExpectRefused("tensor<fp32, [1]", "expected a word or an opening bracket, found the end of the text");
  ExpectRefused("tensor<fp32, [1]]>", "expected a word or an opening bracket, found ']'");
  ExpectRefused("tensor<fp32, [1], [", "the text ends within brackets");
  ExpectRefused("list", "expected '<'");
  ExpectRefused("list<string", "the text ends within brackets");
}

TEST(TypeParser, ImpossibleDimensions) {
  for (const char* size : {"-1", "1.5", "0x10", "2147483649", "99999999999999999999", "1a"}) {
    ExpectRefused("tensor<fp32, [1, " + std::string(size) + "]>",
                  "line 1, column 18: a dimension has size '" + std::string(size) + "'");
  }
  ExpectRefused("tensor<fp32, [1, 1, 1, 1, 1, 1, 1, 1, 1]>", "a tensor type has more than 8 dimensions");
}

}  // namespace
}  // namespace ulmora::engine::package::text
