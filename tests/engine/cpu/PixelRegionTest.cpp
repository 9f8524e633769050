// Chains of operations on single pixels: which become a region, and that a region computes what its operations do.

#include "engine/cpu/Executable.h"
#include "engine/cpu/OneDnn.h"
#include "engine/cpu/kernels/pixels/PixelVariants.h"
#include "engine/cpu/kernels/pixels/Pixels.h"
#include "engine/program/Specialize.h"
#include "engine/program/passes/Pipeline.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace ulmora::engine::cpu {
namespace {

using program::Program;
using program::ProgramBuilder;
using program::ValueId;

constexpr Tolerance kTolerance = {1e-4, 1e-4};

/// Writes networks of the operations that regions are made of.
class Writer {
 public:
  explicit Writer(Random& random) : random_(random) {}

  ValueId Input(const Shape& shape) {
    shape_ = shape;
    return builder_.Input("x", shape);
  }

  ValueId Conv(ValueId x, std::int64_t inputs, std::int64_t outputs, bool bias = true) {
    const float bound = 1.5F / std::sqrt(static_cast<float>(inputs));
    std::map<std::string, program::Operands> arguments = {
        {"x", {x}}, {"weight", {Constant(random_.Floats({outputs, inputs, 1, 1}, -bound, bound))}}};
    if (bias) arguments["bias"] = {Constant(random_.Floats({outputs}))};
    return builder_.Call("conv", arguments);
  }

  ValueId Norm(ValueId x, std::int64_t channels, bool affine = true) {
    std::map<std::string, program::Operands> arguments = {
        {"x", {x}}, {"axes", {Constant(Ints({1}))}}, {"epsilon", {Constant(Tensor::Float(1e-3F))}}};
    if (affine) {
      arguments["gamma"] = {Constant(random_.Floats({channels}, 0.5F, 1.5F))};
      arguments["beta"] = {Constant(random_.Floats({channels}))};
    }
    return builder_.Call("layer_norm", arguments);
  }

  ValueId Gate(ValueId x, std::int64_t half) {
    const ValueId axis = Constant(Tensor::Int(1));
    const ValueId left =
        builder_.Call("split", {{"x", {x}}, {"split_sizes", {Constant(Ints({half, half}))}}, {"axis", {axis}}});
    const ValueId right = builder_.program.AddValue({"right", ProgramBuilder::AnyFloats(), {}});
    builder_.program.operations.back().results.push_back(right);
    return Two("mul", left, right);
  }

  ValueId Two(const std::string& key, ValueId x, ValueId y) { return builder_.Call(key, {{"x", {x}}, {"y", {y}}}); }

  ValueId Mean(ValueId x) {
    return builder_.Call(
        "reduce_mean", {{"x", {x}}, {"axes", {Constant(Ints({2, 3}))}}, {"keep_dims", {Constant(Tensor::Bool(true))}}});
  }

  ValueId One(const std::string& key, ValueId x) { return builder_.Call(key, {{"x", {x}}}); }
  ValueId Constant(const Tensor& tensor) { return builder_.Constant(tensor); }

  Program Finish(ValueId output) {
    builder_.Output(output);
    Program program = program::Specialize(builder_.program, {shape_});
    program::Rewrite(program);
    return program;
  }

 private:
  Random& random_;
  ProgramBuilder builder_{7};
  Shape shape_;
};

/// Steps of the compiled program that run through the kernels for pixels.
std::int64_t RegionsIn(const Program& program, const ExecutableOptions& options = {}) {
  const std::vector<std::string> steps = Executable(program, options).StepNames();
  return std::ranges::count_if(steps, [](const std::string& step) { return step.ends_with(": pixels"); });
}

/// A normalised and gated block: what enters it is added again twice, in the middle and at the end.
Program GatedBlock(Random& random, const Shape& shape) {
  const std::int64_t width = shape[1];
  Writer net(random);
  const ValueId x = net.Input(shape);
  const ValueId wide = net.Conv(net.Norm(x, width), width, 2 * width);
  const ValueId gated = net.Gate(wide, width);
  const ValueId attention = net.Conv(net.Mean(gated), width, width);
  const ValueId middle = net.Two("add", net.Conv(net.Two("mul", gated, attention), width, width), x);
  const ValueId second = net.Gate(net.Conv(net.Norm(middle, width, false), width, 2 * width, false), width);
  return net.Finish(net.Two("add", middle, net.Conv(second, width, width)));
}

TEST(PixelRegions, AgreeWithTheirOperations) {
  ForSeeds([](Random& random) {
    const std::int64_t block = onednn::ChannelBlock();
    const Shape shape = {random.Int(1, 2), block * random.Int(1, 4), random.Int(4, 23), random.Int(5, 31)};
    const Program program = GatedBlock(random, shape);
    EXPECT_EQ(RegionsIn(program), 2);
    ExpectSame(program, random.Floats(shape), kTolerance);
  });
}

TEST(PixelRegions, AgreeOnImagesOfManyRuns) {
  Random random(5);
  const Shape shape = {1, 2 * onednn::ChannelBlock(), 61, 67};
  ExpectSame(GatedBlock(random, shape), random.Floats(shape), kTolerance);
}

TEST(PixelRegions, AreNotFormedWhereChannelsDoNotFillBlocks) {
  Random random(6);
  const Shape shape = {1, onednn::ChannelBlock() + 4, 9, 10};
  const Program program = GatedBlock(random, shape);
  EXPECT_EQ(RegionsIn(program), 0);
  ExpectSame(program, random.Floats(shape), kTolerance);
}

TEST(PixelRegions, CanBeTurnedOff) {
  Random random(7);
  ExecutableOptions options;
  options.pixelRegions = false;
  EXPECT_EQ(RegionsIn(GatedBlock(random, {1, 32, 9, 10}), options), 0);
}

TEST(PixelRegions, TakeActivationsAndSumsAlong) {
  ForSeeds([](Random& random) {
    const Shape shape = {1, 32, random.Int(5, 12), random.Int(5, 12)};
    Writer net(random);
    const ValueId x = net.Input(shape);
    const std::string activation = random.Pick<std::string>({"relu", "relu6", "abs"});
    const ValueId a = net.One(activation, net.Conv(x, 32, 48));
    const ValueId b = net.Two("sub", net.Conv(a, 48, 32), x);
    const ValueId c = net.Two("sub", x, net.Conv(b, 32, 32));
    const ValueId scaled = net.Two("mul", c, net.Constant(Tensor::Float(0.5F)));
    const Program program = net.Finish(net.Two("mul", net.Conv(scaled, 32, 32), x));
    ExpectSame(program, random.Floats(shape), kTolerance);
  });
}

TEST(PixelRegions, LeaveAloneWhatOthersRead) {
  // The gated value is read by a reduction, too, and so must reach memory.
  Random random(8);
  const Shape shape = {1, 32, 9, 11};
  Writer net(random);
  const ValueId x = net.Input(shape);
  const ValueId gated = net.Gate(net.Conv(net.Norm(x, 32), 32, 64), 32);
  const ValueId again = net.Two("add", net.Conv(gated, 32, 32), x);
  const Program program = net.Finish(net.Two("mul", again, net.Mean(gated)));
  EXPECT_EQ(RegionsIn(program), 2);
  ExpectSame(program, random.Floats(shape), kTolerance);
}

TEST(PixelRegions, FactorsMayDifferBetweenImages) {
  Random random(9);
  const Shape shape = {3, 32, 6, 7};
  Writer net(random);
  const ValueId x = net.Input(shape);
  const Program program = net.Finish(net.Conv(net.Two("mul", net.Mean(x), x), 32, 32));
  EXPECT_EQ(RegionsIn(program), 1);
  ExpectSame(program, random.Floats(shape), kTolerance);
}

TEST(PixelPlans, ScratchDoesNotGrowWithTheImage) {
  const PixelKernels& kernels = *FindPixelKernels(onednn::ChannelBlock());
  EXPECT_EQ(PixelPlan(kernels, 1, 1 << 16, 128, 2).scratchBytes(),
            PixelPlan(kernels, 4, 1 << 24, 128, 2).scratchBytes());
}

TEST(PixelPlans, EveryInstructionSetGivesTheSame) {
  for (const PixelKernels* kernels : {&kPixelsBaseline, FindPixelKernels(8), FindPixelKernels(16)}) {
    if (kernels == nullptr) continue;
    const int lanes = kernels->lanes;
    Random random(10);
    constexpr std::int64_t kInputs = 32;
    constexpr std::int64_t kOutputs = 48;
    constexpr std::int64_t kPixels = 37;
    const Tensor x = random.Floats({kPixels, kInputs});
    const Tensor weights = random.Floats({kOutputs, kInputs});
    std::vector<float> packed(static_cast<std::size_t>(kInputs * kOutputs));
    kernels->pack(weights.floats().data(), kOutputs, kInputs, packed.data());
    std::vector<float> source(x.floats().begin(), x.floats().end());
    std::vector<float> result(static_cast<std::size_t>(kPixels * kOutputs));
    std::vector<PixelStep> steps(3);
    steps[0].kind = PixelStep::Kind::Load;
    steps[0].channels = steps[1].inputs = kInputs;
    steps[0].tensor = source.data();
    steps[0].strides = {0, lanes, kInputs};
    steps[1].kind = PixelStep::Kind::Matrix;
    steps[1].channels = steps[2].channels = kOutputs;
    steps[1].to = steps[2].from = kInputs;
    steps[1].weights = packed.data();
    steps[2].kind = PixelStep::Kind::Store;
    steps[2].tensor = result.data();
    steps[2].strides = {0, lanes, kOutputs};
    const PixelPlan plan(*kernels, 1, kPixels, kInputs + kOutputs, 2);
    std::vector<float> scratch(static_cast<std::size_t>(plan.scratchBytes()) / sizeof(float));
    plan.Run(steps.data(), steps.size(), scratch.data());
    std::vector<float> expected;
    for (std::int64_t p = 0; p < kPixels; ++p) {
      for (std::int64_t o = 0; o < kOutputs; ++o) {
        double sum = 0.0;
        for (std::int64_t i = 0; i < kInputs; ++i) {
          sum += static_cast<double>(source[static_cast<std::size_t>(p * kInputs + i)]) *
                 static_cast<double>(weights.floats()[static_cast<std::size_t>(o * kInputs + i)]);
        }
        expected.push_back(static_cast<float>(sum));
      }
    }
    ExpectClose(result, expected, {1e-5, 1e-5}, std::to_string(lanes) + " lanes");
  }
}

}  // namespace
}  // namespace ulmora::engine::cpu
