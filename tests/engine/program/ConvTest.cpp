#include "engine/program/ops/ConvGeometry.h"
#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <random>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Tensor Line(std::vector<float> values) {
  Shape shape = {1, 1, static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(std::move(shape), std::move(values));
}

std::vector<float> Conv(TestOperands operands) {
  return FloatsOf(EvaluateOne("conv", operands));
}

std::vector<float> Transposed(TestOperands operands) {
  return FloatsOf(EvaluateOne("conv_transpose", operands));
}

TEST(Conv, CorrelatesWithoutFlippingTheKernel) {
  const TestOperands base = {{"x", Line({1, 2, 3, 4, 5})}, {"weight", Line({1, 2, 3})}};
  EXPECT_THAT(Conv(base), ElementsAre(14, 20, 26));
  TestOperands biased = base;
  biased.insert({"bias", Tensor::Floats({1}, {0.5F})});
  EXPECT_THAT(Conv(biased), ElementsAre(14.5F, 20.5F, 26.5F));
}

TEST(Conv, StridesAndDilations) {
  const Tensor x = Line({1, 2, 3, 4, 5, 6, 7});
  EXPECT_THAT(Conv({{"x", x}, {"weight", Line({1, 10})}, {"strides", {3}}}), ElementsAre(21, 54));
  EXPECT_THAT(Conv({{"x", x}, {"weight", Line({1, 10})}, {"dilations", {3}}}), ElementsAre(41, 52, 63, 74));
  EXPECT_THAT(Conv({{"x", x}, {"weight", Line({1, 10})}, {"strides", {2}}, {"dilations", {4}}}), ElementsAre(51, 73));
}

TEST(Conv, SamePaddingOfEvenKernelsPutsTheExtraElementAtTheEnd) {
  const TestOperands base = {{"x", Line({1, 2, 3})}, {"weight", Line({1, 10})}};
  TestOperands same = base;
  same.insert({"pad_type", "same"});
  EXPECT_THAT(Conv(same), ElementsAre(21, 32, 3));
  TestOperands lower = base;
  lower.insert({"pad_type", "same_lower"});
  EXPECT_THAT(Conv(lower), ElementsAre(10, 21, 32));
}

TEST(Conv, SamePaddingWithStridesDependsOnTheSize) {
  const auto same = [](const Tensor& x, const Tensor& weight, int stride) {
    return Conv({{"x", x}, {"weight", weight}, {"strides", {stride}}, {"pad_type", "same"}});
  };
  const Tensor ones = Line({1, 1, 1});
  EXPECT_THAT(same(Line({1, 2, 3, 4, 5}), ones, 2), ElementsAre(3, 9, 9));             // one element on each side
  EXPECT_THAT(same(Line({1, 2, 3, 4}), ones, 2), ElementsAre(6, 7));                   // one at the end
  EXPECT_THAT(same(Line({1, 2, 3, 4, 5, 6}), Line({1, 10}), 3), ElementsAre(21, 54));  // none: nothing is cut off
}

TEST(Conv, PadsAreInNaturalOrderAndOnlyForCustom) {
  const Tensor x = Tensor::Floats({1, 1, 2, 2}, {1, 2, 3, 4});
  const Tensor one = Tensor::Floats({1, 1, 1, 1}, {1});
  const TestOperands custom = {{"x", x}, {"weight", one}, {"pad_type", "custom"}, {"pad", {1, 0, 0, 2}}};
  EXPECT_EQ(InferShape("conv", custom), (Shape{1, 1, 3, 4}));
  EXPECT_THAT(Conv(custom), ElementsAre(0, 0, 0, 0, 1, 2, 0, 0, 3, 4, 0, 0));
  EXPECT_THAT(Conv({{"x", x}, {"weight", one}, {"pad_type", "valid"}, {"pad", {1, 0, 0, 2}}}), ElementsAre(1, 2, 3, 4));
}

TEST(Conv, GroupsSeeOnlyTheirChannels) {
  const Tensor x = Tensor::Floats({1, 4, 1}, {1, 10, 100, 1000});
  const Tensor weight = Tensor::Floats({2, 2, 1}, {1, 2, 3, 4});
  EXPECT_THAT(Conv({{"x", x}, {"weight", weight}, {"groups", 2}}), ElementsAre(21, 4300));
  const Tensor depthwise = Tensor::Floats({4, 1, 1}, {1, 2, 3, 4});
  EXPECT_THAT(Conv({{"x", x}, {"weight", depthwise}, {"groups", 4}}), ElementsAre(1, 20, 300, 4000));
}

TEST(Conv, BatchesAreIndependent) {
  const Tensor x = Tensor::Floats({2, 1, 2}, {1, 2, 3, 4});
  EXPECT_THAT(Conv({{"x", x}, {"weight", Line({1, 10})}}), ElementsAre(21, 43));
}

TEST(Conv, ThreeSpatialAxes) {
  const Tensor x = Ramp({1, 1, 2, 3, 4});
  const Tensor corners = Tensor::Floats({1, 1, 2, 2, 2}, {1, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_EQ(InferShape("conv", {{"x", x}, {"weight", corners}}), (Shape{1, 1, 1, 2, 3}));
  EXPECT_THAT(Conv({{"x", x}, {"weight", corners}}), ElementsAre(17, 19, 21, 25, 27, 29));
}

TEST(ConvTranspose, ScattersTheKernel) {
  const TestOperands base = {{"x", Line({1, 2})}, {"weight", Line({1, 10, 100})}, {"strides", {2}}};
  const auto with = [&base](const TestOperands& more) {
    TestOperands all = base;
    all.insert(more.begin(), more.end());
    return Transposed(all);
  };
  EXPECT_THAT(with({}), ElementsAre(1, 10, 102, 20, 200));
  EXPECT_THAT(with({{"bias", Tensor::Floats({1}, {0.5F})}}), ElementsAre(1.5F, 10.5F, 102.5F, 20.5F, 200.5F));
  EXPECT_THAT(with({{"pad_type", "custom"}, {"pad", {1, 2}}}), ElementsAre(10, 102));
  EXPECT_THAT(with({{"pad_type", "same"}}), ElementsAre(1, 10, 102, 20));
  EXPECT_THAT(with({{"pad_type", "same_lower"}}), ElementsAre(10, 102, 20, 200));
  EXPECT_THAT(with({{"dilations", {2}}}), ElementsAre(1, 0, 12, 0, 120, 0, 200));
}

TEST(ConvTranspose, OutputShapeOverridesTheFormula) {
  const TestOperands base = {{"x", Line({1, 2})}, {"weight", Line({1, 10, 100})}, {"strides", {2}}};
  const auto with = [&base](const TestOperands& more) {
    TestOperands all = base;
    all.insert(more.begin(), more.end());
    return Transposed(all);
  };
  EXPECT_THAT(with({{"output_shape", {1, 1, 7}}}), ElementsAre(1, 10, 102, 20, 200, 0, 0));
  EXPECT_THAT(with({{"output_shape", {1, 1, 4}}}), ElementsAre(1, 10, 102, 20));
  EXPECT_THAT(with({{"pad_type", "custom"}, {"pad", {1, 1}}, {"output_shape", {1, 1, 4}}}),
              ElementsAre(10, 102, 20, 200));
  EXPECT_THAT(with({{"pad_type", "same"}, {"output_shape", {1, 1, 3}}}), ElementsAre(10, 102, 20));
}

TEST(ConvTranspose, StrideBeyondTheKernelLeavesGaps) {
  EXPECT_THAT(Transposed({{"x", Line({1, 2})}, {"weight", Line({2})}, {"strides", {3}}, {"pad_type", "same"}}),
              ElementsAre(2, 0, 0, 4, 0, 0));
}

TEST(ConvTranspose, WeightIsInputMajor) {
  const Tensor x = Tensor::Floats({1, 2, 1}, {1, 10});
  const Tensor weight = Tensor::Floats({2, 3, 1}, {1, 2, 3, 4, 5, 6});
  EXPECT_THAT(Transposed({{"x", x}, {"weight", weight}}), ElementsAre(41, 52, 63));
  EXPECT_THAT(Transposed({{"x", x}, {"weight", weight}, {"groups", 2}}), ElementsAre(1, 2, 3, 40, 50, 60));
}

/// A random case of either operation in two spatial axes.
struct RandomCase {
  std::mt19937 random;
  std::int64_t groups, groupInputs, groupOutputs;
  std::vector<std::int32_t> stride, dilation, pad;
  Shape kernel;

  explicit RandomCase(unsigned seed) : random(seed) {
    groups = Number(1, 2);
    groupInputs = Number(1, 3);
    groupOutputs = Number(1, 3);
    for (int i = 0; i < 2; ++i) {
      stride.push_back(Number(1, 3));
      dilation.push_back(Number(1, 2));
      kernel.push_back(Number(1, 4));
    }
    for (int i = 0; i < 4; ++i) pad.push_back(Number(0, 2));
  }

  std::int32_t Number(int low, int high) { return std::uniform_int_distribution<std::int32_t>(low, high)(random); }

  /// Small whole numbers, so that every sum is exact.
  Tensor Numbers(const Shape& shape) {
    std::vector<float> values(static_cast<std::size_t>(ElementCount(shape)));
    for (float& value : values) value = static_cast<float>(Number(-4, 4));
    return Tensor::Floats(shape, std::move(values));
  }

  TestOperands Operands(const Tensor& x, const Tensor& weight) const {
    return {{"x", x},
            {"weight", weight},
            {"groups", static_cast<int>(groups)},
            {"strides", Tensor::IntVector(stride)},
            {"dilations", Tensor::IntVector(dilation)},
            {"pad_type", "custom"},
            {"pad", Tensor::IntVector(pad)}};
  }
};

float At(const Tensor& tensor, std::int64_t n, std::int64_t c, std::int64_t h, std::int64_t w) {
  const Shape& s = tensor.shape();
  if (h < 0 || w < 0 || h >= s[2] || w >= s[3]) return 0.0F;
  return tensor.floats()[static_cast<std::size_t>(((n * s[1] + c) * s[2] + h) * s[3] + w)];
}

double Dot(const Tensor& a, const Tensor& b) {
  return std::inner_product(a.floats().begin(), a.floats().end(), b.floats().begin(), 0.0);
}

TEST(Conv, EqualsItsDefinitionOnRandomCases) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    RandomCase c(seed);
    const Tensor x = c.Numbers({2, c.groups * c.groupInputs, 9, 8});
    const Tensor w = c.Numbers({c.groups * c.groupOutputs, c.groupInputs, c.kernel[0], c.kernel[1]});
    const Tensor y = EvaluateOne("conv", c.Operands(x, w));
    Shape i(4, 0);
    do {
      const std::int64_t group = i[1] / c.groupOutputs;
      float sum = 0.0F;
      for (std::int64_t ci = 0; ci < c.groupInputs; ++ci) {
        for (std::int64_t kh = 0; kh < c.kernel[0]; ++kh) {
          for (std::int64_t kw = 0; kw < c.kernel[1]; ++kw) {
            sum += At(w, i[1], ci, kh, kw) * At(x, i[0], group * c.groupInputs + ci,
                                                i[2] * c.stride[0] + kh * c.dilation[0] - c.pad[0],
                                                i[3] * c.stride[1] + kw * c.dilation[1] - c.pad[2]);
          }
        }
      }
      ASSERT_EQ(At(y, i[0], i[1], i[2], i[3]), sum) << ToString(i);
    } while (NextIndex(i, y.shape()));
  }
}

/// The transposed convolution is the adjoint: <conv(a), b> = <a, conv_transpose(b)> with the same weight tensor, for
/// all a of the size that the transposed one yields.
TEST(ConvTranspose, IsTheAdjointOfConvOnRandomCases) {
  for (unsigned seed = 100; seed < 140; ++seed) {
    SCOPED_TRACE(seed);
    RandomCase c(seed);
    const Tensor b = c.Numbers({2, c.groups * c.groupInputs, 5, 6});
    const Tensor w = c.Numbers({c.groups * c.groupInputs, c.groupOutputs, c.kernel[0], c.kernel[1]});
    TestOperands transposed = c.Operands(b, w);
    try {
      static_cast<void>(InferOp("conv_transpose", transposed));
    } catch (const std::exception&) {
      continue;  // the pads cut everything away
    }
    const Tensor y = EvaluateOne("conv_transpose", transposed);
    const Tensor a = c.Numbers(y.shape());
    const Tensor forward = EvaluateOne("conv", c.Operands(a, w));
    ASSERT_EQ(forward.shape(), b.shape());
    EXPECT_EQ(Dot(forward, b), Dot(a, y));
  }
}

const Shape kImage = {1, 32, 16, 16};

TestOperands OfTypes(Shape x, Shape weight, const TestOperands& more = {}) {
  TestOperands operands = {{"x", FloatType(std::move(x))}, {"weight", FloatType(std::move(weight))}};
  operands.insert(more.begin(), more.end());
  return operands;
}

TEST(Conv, TakesRunTimeWeights) {
  EXPECT_EQ(InferShape("conv", OfTypes(kImage, {8, 32, 3, 3}, {{"bias", FloatType({8})}})), (Shape{1, 8, 14, 14}));
}

TEST(Conv, RefusesChannelsThatDoNotMatch) {
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {8, 64, 3, 3})),
            "conv 'op': weight has 64 input channels, expected 32 (groups=1)");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {8, 32, 3, 3}, {{"groups", 4}})),
            "conv 'op': weight has 32 input channels, expected 8 (groups=4)");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {8, 32, 3, 3}, {{"groups", 5}})),
            "conv 'op': x has 32 channels, which cannot be divided into 5 groups");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {6, 8, 3, 3}, {{"groups", 4}})),
            "conv 'op': weight has shape [6, 8, 3, 3], its 6 channels cannot be divided into 4 groups");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {8, 32, 3, 3}, {{"bias", FloatType({32})}})),
            "conv 'op': bias has shape [32], expected [8]");
  EXPECT_EQ(RefusalOf("conv_transpose", OfTypes(kImage, {8, 32, 3, 3})),
            "conv_transpose 'op': weight has 8 input channels, expected 32 (groups=1)");
  EXPECT_EQ(RefusalOf("conv_transpose", OfTypes(kImage, {32, 8, 3, 3}, {{"groups", 3}})),
            "conv_transpose 'op': weight has shape [32, 8, 3, 3], its 32 channels cannot be divided into 3 groups");
}

TEST(Conv, RefusesRanksAndKinds) {
  EXPECT_EQ(RefusalOf("conv", OfTypes({32, 16}, {8, 32})), "conv 'op': x has shape [32, 16], expected rank 3 to 5");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {8, 32, 3})), "conv 'op': weight has shape [8, 32, 3], expected rank 4");
  EXPECT_EQ(RefusalOf("conv", OfTypes(kImage, {0, 32, 3, 3})),
            "conv 'op': weight has shape [0, 32, 3, 3] without elements");
  EXPECT_EQ(RefusalOf("conv", OfTypes({1, 32, 0, 16}, {8, 32, 1, 1})),
            "conv 'op': x has shape [1, 32, 0, 16] without elements");
  EXPECT_EQ(RefusalOf("conv", {{"x", IntType(kImage)}, {"weight", FloatType({8, 32, 3, 3})}}),
            "conv 'op': x is of type int32, expected floats");
}

TEST(Conv, RefusesImpossibleAttributes) {
  const auto refusal = [](const TestOperands& more) { return RefusalOf("conv", OfTypes(kImage, {8, 32, 3, 3}, more)); };
  EXPECT_EQ(refusal({{"groups", 0}}), "conv 'op': groups is 0, expected at least 1");
  EXPECT_EQ(refusal({{"strides", {1, 0}}}), "conv 'op': strides has an entry 0, expected at least 1");
  EXPECT_EQ(refusal({{"strides", {1}}}), "conv 'op': strides has 1 entries, expected 2");
  EXPECT_EQ(refusal({{"dilations", {-1, 1}}}), "conv 'op': dilations has an entry -1, expected at least 1");
  EXPECT_EQ(refusal({{"pad_type", "custom"}, {"pad", {0, 0, -1, 0}}}),
            "conv 'op': pad has an entry -1, expected at least 0");
  EXPECT_EQ(refusal({{"pad_type", "custom"}, {"pad", {0, 0}}}), "conv 'op': pad has 2 entries, expected 4");
  EXPECT_EQ(refusal({{"pad_type", "reflect"}}),
            "conv 'op': pad_type is 'reflect', expected valid, same, same_lower or custom");
  EXPECT_EQ(refusal({{"dilations", {1, INT32_MAX}}}),
            "conv 'op': kernel 3 with dilation 2147483647 along spatial axis 1 is too large");
  EXPECT_EQ(refusal({{"dilations", {8, 1}}}),
            "conv 'op': kernel of span 17 leaves no output of 16 elements along spatial axis 0 (padding 0 and 0)");
}

TEST(ConvTranspose, RefusesImpossibleOutputs) {
  const auto refusal = [](const TestOperands& more) {
    return RefusalOf("conv_transpose", OfTypes({1, 4, 2, 2}, {4, 8, 3, 3}, more));
  };
  EXPECT_EQ(refusal({{"output_shape", {1, 4, 4, 4}}}),
            "conv_transpose 'op': output_shape is [1, 4, 4, 4], expected 1 and 8 as its first entries");
  EXPECT_EQ(refusal({{"output_shape", {4, 4}}}), "conv_transpose 'op': output_shape has 2 entries, expected 4");
  EXPECT_THAT(refusal({{"output_shape", {1, 8, 0, 4}}}), HasSubstr("output_shape has an entry 0"));
  EXPECT_THAT(refusal({{"pad_type", "custom"}, {"pad", {2, 2, 0, 0}}}), HasSubstr("leaves no output of 2 elements"));
}

}  // namespace
}  // namespace ulmora::engine::program
