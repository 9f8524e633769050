#include "engine/WeightForms.h"

#include <gtest/gtest.h>

namespace ulmora::engine {
namespace {

using package::NamedType;
using package::SourceOperation;
using package::SourceProgram;

NamedType Result(const std::string& name, Shape shape, ElementType element = ElementType::Float16) {
  return {name, {element, std::move(shape), true}, true};
}

SourceOperation Const(const std::string& name, const Tensor& value) {
  return {"const", name, {}, {{"val", value}}, {{name, value.type(), true}}, false};
}

Tensor Halves(Shape shape) {
  const auto count = static_cast<std::size_t>(ElementCount(shape));
  return Tensor::Floats(std::move(shape), std::vector<float>(count), ElementType::Float16);
}

Tensor Bytes(Shape shape, ElementType element) {
  const auto count = static_cast<std::size_t>(ElementCount(shape));
  return Tensor::Ints(std::move(shape), std::vector<std::int32_t>(count), element);
}

void ExpectForm(const WeightForm& found, const WeightForm& expected) {
  EXPECT_EQ(found.form, expected.form);
  EXPECT_EQ(found.tensors, expected.tensors) << found.form;
  EXPECT_EQ(found.elements, expected.elements) << found.form;
  EXPECT_EQ(found.bytes, expected.bytes) << found.form;
}

TEST(WeightForms, PlainConstantsWithoutScalarsAndShortLists) {
  SourceProgram program;
  program.operations = {Const("w", Halves({8, 3, 3, 3})),
                        Const("b", Halves({8})),
                        Const("strides", Tensor::IntVector({1, 1})),
                        Const("eps", Tensor::Float(1e-5F)),
                        Const("table", Bytes({20}, ElementType::Int32)),
                        Const("mode", Tensor::Text("same"))};
  const std::vector<WeightForm> forms = WeightFormsOf(program);
  ASSERT_EQ(forms.size(), 2U);
  ExpectForm(forms[0], {"float16", 2, 224, 448});
  ExpectForm(forms[1], {"int32", 1, 20, 80});
}

TEST(WeightForms, SharedElementsTakeTheirBytesOnce) {
  const Tensor shared = Halves({100});
  SourceProgram program;
  program.operations = {Const("a", shared), Const("b", shared), Const("c", shared.Reshaped({10, 10}))};
  ExpectForm(WeightFormsOf(program).at(0), {"float16", 3, 300, 200});
}

TEST(WeightForms, UnpackedInEitherPlaceOfTheParameters) {
  SourceProgram program;
  program.operations = {{"constexpr_lut_to_dense",
                         "older",
                         {},
                         {{"indices", Bytes({50}, ElementType::UInt8)}, {"lut", Halves({16})}},
                         {Result("older", {100})},
                         false},
                        {"constexpr_blockwise_shift_scale",
                         "newer",
                         {{"data", {Bytes({10, 10}, ElementType::Int4)}}, {"scale", {"s"}}},
                         {},
                         {Result("newer", {10, 10})},
                         false}};
  program.operations.insert(program.operations.begin(), Const("s", Halves({10, 1})));
  const std::vector<WeightForm> forms = WeightFormsOf(program);
  ASSERT_EQ(forms.size(), 2U);
  ExpectForm(forms[0], {"palettized (uint8)", 1, 100, 82});
  ExpectForm(forms[1], {"quantized in blocks (int4)", 1, 100, 70});
}

TEST(WeightForms, JointFormsAreOneWeight) {
  SourceProgram program;
  program.operations = {{"constexpr_lut_to_sparse",
                         "inner",
                         {{"indices_mask", {Bytes({80}, ElementType::UInt1)}},
                          {"indices_nonzero_data", {Bytes({40}, ElementType::UInt4)}},
                          {"lut", {Halves({16})}}},
                         {},
                         {Result("mask", {80}, ElementType::UInt1), Result("data", {40})},
                         false},
                        {"constexpr_sparse_to_dense",
                         "outer",
                         {{"nonzero_data", {"data"}}, {"mask", {"mask"}}},
                         {},
                         {Result("w", {80})},
                         false}};
  const std::vector<WeightForm> forms = WeightFormsOf(program);
  ASSERT_EQ(forms.size(), 1U);
  ExpectForm(forms[0], {"sparse, palettized (uint4)", 1, 80, 10 + 20 + 32});
}

TEST(WeightForms, OfLayers) {
  const std::vector<WeightForm> forms = WeightFormsOf(
      std::vector<package::StoredWeights>{{"float32", 72, 288}, {"quantized (uint4)", 1000, 508}, {"float32", 8, 32}});
  ASSERT_EQ(forms.size(), 2U);
  ExpectForm(forms[0], {"quantized (uint4)", 1, 1000, 508});
  ExpectForm(forms[1], {"float32", 2, 80, 320});
}

TEST(WeightForms, InlineConstantsOfOtherOperations) {
  SourceProgram program;
  program.operations = {{"conv", "c", {{"weight", {Halves({4, 4})}}, {"x", {"x"}}}, {}, {Result("y", {4})}, false}};
  ExpectForm(WeightFormsOf(program).at(0), {"float16", 1, 16, 32});
  EXPECT_TRUE(WeightFormsOf(SourceProgram{}).empty());
}

}  // namespace
}  // namespace ulmora::engine
