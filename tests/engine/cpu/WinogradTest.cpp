// The Winograd kernels of every instruction set that this machine has, against sums written out.

#include "engine/cpu/AlignedBuffer.h"
#include "engine/cpu/kernels/winograd/Winograd.h"
#include "engine/cpu/kernels/winograd/WinogradVariants.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {
namespace {

std::vector<std::pair<std::string, const WinogradKernels*>> Variants() {
  std::vector<std::pair<std::string, const WinogradKernels*>> variants = {{"baseline", &kWinogradBaseline}};
#if defined(__x86_64__)
  if (FindWinograd(8) == &kWinogradAvx2) variants.emplace_back("AVX2", &kWinogradAvx2);
  if (FindWinograd(16) != nullptr) variants.emplace_back("AVX-512", &kWinogradAvx512);
#endif
  return variants;
}

/// Sizes of a case; the result's follow from the padding.
struct Sizes {
  std::int64_t images, inputs, outputs, height, width;
  std::int64_t top, left, bottom, right;
};

std::int64_t ResultHeight(const Sizes& s) {
  return s.height + s.top + s.bottom - 2;
}
std::int64_t ResultWidth(const Sizes& s) {
  return s.width + s.left + s.right - 2;
}

float At(const Tensor& tensor, const std::vector<std::int64_t>& index) {
  std::int64_t offset = 0;
  for (std::size_t axis = 0; axis < index.size(); ++axis) offset = offset * tensor.shape()[axis] + index[axis];
  return tensor.floats()[static_cast<std::size_t>(offset)];
}

/// Where element [image, channel, y, x] lies.
std::size_t Offset(const PixelStrides& strides, std::int64_t lanes, std::int64_t image, std::int64_t channel,
                   std::int64_t y, std::int64_t x) {
  return static_cast<std::size_t>(image * strides.image + channel / lanes * strides.block + channel % lanes +
                                  y * strides.row + x * strides.pixel);
}

PixelStrides Blocked(std::int64_t lanes, std::int64_t channels, std::int64_t height, std::int64_t width) {
  return {channels * height * width, height * width * lanes, width * lanes, lanes};
}
PixelStrides ChannelsLast(std::int64_t lanes, std::int64_t channels, std::int64_t height, std::int64_t width) {
  return {channels * height * width, lanes, width * channels, channels};
}

std::vector<float> Arranged(const Tensor& tensor, const PixelStrides& strides, std::int64_t lanes) {
  const Shape& shape = tensor.shape();
  std::vector<float> arranged(static_cast<std::size_t>(tensor.count()));
  for (std::int64_t n = 0; n < shape[0]; ++n) {
    for (std::int64_t c = 0; c < shape[1]; ++c) {
      for (std::int64_t y = 0; y < shape[2]; ++y) {
        for (std::int64_t x = 0; x < shape[3]; ++x) {
          arranged[Offset(strides, lanes, n, c, y, x)] = At(tensor, {n, c, y, x});
        }
      }
    }
  }
  return arranged;
}

double SumAt(const Sizes& s, const Tensor& x, const Tensor& weight, const std::vector<std::int64_t>& result) {
  double sum = 0.0;
  for (std::int64_t i = 0; i < s.inputs; ++i) {
    for (std::int64_t ky = 0; ky < 3; ++ky) {
      for (std::int64_t kx = 0; kx < 3; ++kx) {
        const std::int64_t row = result[2] + ky - s.top;
        const std::int64_t column = result[3] + kx - s.left;
        if (row < 0 || row >= s.height || column < 0 || column >= s.width) continue;
        sum += static_cast<double>(At(x, {result[0], i, row, column})) *
               static_cast<double>(At(weight, {result[1], i, ky, kx}));
      }
    }
  }
  return sum;
}

using Strider = PixelStrides (*)(std::int64_t lanes, std::int64_t channels, std::int64_t height, std::int64_t width);

/// Runs a case with bias and all kinds of stages and compares every result.
void ExpectSums(const WinogradKernels& kernels, const Sizes& s, Strider strider, int threads) {
  Random random(static_cast<std::uint32_t>(s.height * 31 + s.width));
  const std::int64_t lanes = kernels.lanes;
  const Tensor x = random.Floats({s.images, s.inputs, s.height, s.width});
  const Tensor weight = random.Floats({s.outputs, s.inputs, 3, 3}, -0.1F, 0.1F);
  const Tensor bias = random.Floats({s.outputs});
  const Shape resultShape = {s.images, s.outputs, ResultHeight(s), ResultWidth(s)};
  const Tensor added = random.Floats(resultShape);
  const Tensor factor = random.Floats(resultShape);

  WinogradTask task;
  task.images = s.images;
  task.inputs = s.inputs;
  task.outputs = s.outputs;
  task.height = s.height;
  task.width = s.width;
  task.resultHeight = ResultHeight(s);
  task.resultWidth = ResultWidth(s);
  task.padTop = s.top;
  task.padLeft = s.left;
  task.from = strider(lanes, s.inputs, s.height, s.width);
  task.to = strider(lanes, s.outputs, task.resultHeight, task.resultWidth);
  const WinogradPlan plan(kernels, task, threads);
  AlignedBuffer packed(static_cast<std::size_t>(plan.packedBytes()));
  AlignedBuffer scratch(static_cast<std::size_t>(plan.scratchBytes()));
  plan.Pack(weight.floats().data(), static_cast<float*>(packed.data()));
  // What an earlier step left in the scratch must not matter.
  std::fill_n(static_cast<float*>(scratch.data()), plan.scratchBytes() / 4, std::nanf(""));

  const std::vector<float> source = Arranged(x, task.from, lanes);
  const std::vector<float> factors = Arranged(factor, task.to, lanes);
  std::vector<float> result = Arranged(added, task.to, lanes);  // added in place
  using Kind = WinogradStage::Kind;
  const std::vector<WinogradStage> stages = {{Kind::Relu, 0.25F, 0.0F, nullptr},
                                             {Kind::Add, -1.0F, 0.0F, result.data()},
                                             {Kind::Multiply, 1.0F, 0.0F, factors.data()},
                                             {Kind::Linear, 2.0F, 0.5F, nullptr},
                                             {Kind::Clip, -1.5F, 2.0F, nullptr}};
  task.source = source.data();
  task.weights = static_cast<float*>(packed.data());
  task.bias = bias.floats().data();
  task.result = result.data();
  task.stages = stages.data();
  task.stageCount = static_cast<int>(stages.size());
  plan.Run(task, static_cast<float*>(scratch.data()));

  for (std::int64_t n = 0; n < s.images; ++n) {
    for (std::int64_t o = 0; o < s.outputs; ++o) {
      for (std::int64_t row = 0; row < task.resultHeight; ++row) {
        for (std::int64_t column = 0; column < task.resultWidth; ++column) {
          const std::vector<std::int64_t> at = {n, o, row, column};
          double expected = SumAt(s, x, weight, at) + static_cast<double>(At(bias, {o}));
          expected = expected > 0.0 ? expected : 0.25 * expected;
          expected = (expected - static_cast<double>(At(added, at))) * static_cast<double>(At(factor, at));
          expected = std::clamp(2.0 * expected + 0.5, -1.5, 2.0);
          const float got = result[Offset(task.to, lanes, n, o, row, column)];
          ASSERT_NEAR(got, expected, 2e-5) << "image " << n << " output " << o << " at " << row << ", " << column;
        }
      }
    }
  }
}

/// One, two and three blocks of outputs: groups of two and what is left over; images that fill tiles, that do not, that
/// are smaller than one, and more tiles than a run takes.
TEST(Winograd, AgreesWithTheSums) {
  for (const auto& [name, kernels] : Variants()) {
    SCOPED_TRACE(name);
    const std::int64_t c = kernels->lanes;
    for (const Strider strider : {Blocked, ChannelsLast}) {
      ExpectSums(*kernels, {1, c, c, 8, 8, 1, 1, 1, 1}, strider, 2);
      ExpectSums(*kernels, {2, 2 * c, 3 * c, 7, 10, 1, 1, 1, 1}, strider, 3);
      ExpectSums(*kernels, {1, c, 2 * c, 9, 13, 0, 0, 0, 0}, strider, 1);
      ExpectSums(*kernels, {1, 3 * c, c, 5, 6, 2, 0, 1, 3}, strider, 2);
      ExpectSums(*kernels, {1, c, c, 1, 2, 1, 1, 1, 1}, strider, 2);
      ExpectSums(*kernels, {1, c, c, 66, 70, 1, 1, 1, 1}, strider, 2);
    }
  }
}

/// Scratch belongs to the threads that the plan was made for and does not grow with the image.
TEST(Winograd, ScratchDoesNotGrowWithTheImage) {
  WinogradTask task;
  task.inputs = task.outputs = 64;
  const auto bytes = [&](std::int64_t size) {
    task.height = task.width = task.resultHeight = task.resultWidth = size;
    return WinogradPlan(kWinogradBaseline, task, 2).scratchBytes();
  };
  EXPECT_EQ(bytes(512), bytes(4096));
  EXPECT_LT(bytes(512), 4 << 20);
  EXPECT_LT(bytes(16), bytes(512));
}

/// Weights beyond those that an executable keeps are transformed by every run, with the same result.
TEST(Winograd, TransformsWeightsAtEveryRunIfTheyAreNotKept) {
  const auto build = [] {
    Random random(5);
    program::ProgramBuilder builder;
    const Shape shape = {1, 32, 64, 66};
    program::ValueId x = builder.Input("x", shape);
    const program::ValueId same = builder.Constant(Tensor::Text("same"));
    for (int layer = 0; layer < 2; ++layer) {
      const program::ValueId weight = builder.Constant(random.Floats({32, 32, 3, 3}, -0.1F, 0.1F));
      x = builder.Call("conv", {{"x", {x}}, {"weight", {weight}}, {"pad_type", {same}}}, program::FloatType(shape));
    }
    builder.Output(x);
    return builder.program;
  };
  Executable kept(build());
  Executable transformed(build(), {.keptWinogradBytes = 0});
  EXPECT_LT(transformed.weightBytes(), kept.weightBytes());
  const auto run = [](Executable& executable) {
    Random random(6);
    const Tensor input = random.Floats(executable.inputShape());
    std::ranges::copy(input.floats(), executable.input().begin());
    executable.Run();
    return std::vector<float>(executable.output().begin(), executable.output().end());
  };
  EXPECT_EQ(run(transformed), run(kept));
  EXPECT_EQ(run(transformed), run(kept));
}

}  // namespace
}  // namespace ulmora::engine::cpu
