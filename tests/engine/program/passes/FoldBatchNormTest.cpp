#include "tests/engine/program/passes/PassTesting.h"

#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

Tensor Vector(std::vector<float> values) {
  const Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(shape, std::move(values));
}

struct FoldNetwork : NetworkBuilder {
  ValueId x = Input("x", {1, 2, 3, 3});

  ValueId BatchNorm(ValueId value, bool affine) {
    std::map<std::string, Operands> arguments = {
        {"x", {value}}, {"mean", {Constant(Vector({0.5F, -1, 2}))}}, {"variance", {Constant(Vector({0.25F, 4, 1}))}}};
    if (affine) {
      arguments["gamma"] = {Constant(Vector({2, -1, 0.5F}))};
      arguments["beta"] = {Constant(Vector({1, 0, -3}))};
    }
    return Call("batch_norm", arguments);
  }

  ValueId PerChannel(std::vector<float> values) { return Constant(Tensor::Floats({1, 3, 1, 1}, std::move(values))); }

  std::vector<std::string> Folded(ValueId output, double tolerance = 1e-5) {
    Output(output);
    return KeysOf(Rewritten(program, FoldBatchNorm, tolerance));
  }
};

TEST(FoldBatchNorm, BehindAConvolution) {
  for (const bool affine : {false, true}) {
    FoldNetwork network;
    EXPECT_THAT(network.Folded(network.BatchNorm(network.Conv(network.x, 2, 3), affine)), ElementsAre("conv"));
  }
}

TEST(FoldBatchNorm, BehindAConvolutionWithBias) {
  FoldNetwork network;
  const ValueId conv = network.Call("conv", {{"x", {network.x}},
                                             {"weight", {network.Constant(Ramp({3, 2, 2, 2}, -1.0F, 0.1F))}},
                                             {"bias", {network.Constant(Vector({1, 2, 3}))}}});
  EXPECT_THAT(network.Folded(network.BatchNorm(conv, true)), ElementsAre("conv"));
}

TEST(FoldBatchNorm, BehindAGroupedTransposedConvolution) {
  // Weight [Cin, Cout / groups, ...] with four inputs and two groups: outputs 0, 1 from the first two inputs.
  FoldNetwork network;
  const ValueId x = network.Input("wide", {1, 4, 3, 3});
  const ValueId conv = network.Call("conv_transpose", {{"x", {x}},
                                                       {"weight", {network.Constant(Ramp({4, 2, 2, 2}, -1.0F, 0.1F))}},
                                                       {"groups", {network.Constant(Tensor::Int(2))}}});
  const ValueId scale = network.Constant(Tensor::Floats({4, 1, 1}, {1, 10, -3, 0.5F}));
  EXPECT_THAT(network.Folded(network.Binary("mul", conv, scale)), ElementsAre("conv_transpose"));
}

TEST(FoldBatchNorm, ScalesAndShiftsOfEitherSideInARow) {
  FoldNetwork network;
  ValueId value = network.Conv(network.x, 2, 3);
  value = network.Binary("mul", value, network.PerChannel({2, 3, -1}));
  value = network.Binary("sub", network.Scalar(1.0F), value);
  value = network.Binary("real_div", value, 4.0F);
  value = network.Binary("add", network.PerChannel({1, 0, 5}), value);
  value = network.Binary("sub", value, 0.5F);
  EXPECT_THAT(network.Folded(value), ElementsAre("conv"));
}

TEST(FoldBatchNorm, BehindALinearAlongTheLastDimension) {
  FoldNetwork network;
  const ValueId rows = network.Input("rows", {4, 2});
  const ValueId linear = network.Call("linear", {{"x", {rows}}, {"weight", {network.Constant(Ramp({3, 2}))}}});
  const ValueId scaled = network.Binary("mul", linear, network.Constant(Vector({1, 2, 3})));
  EXPECT_THAT(network.Folded(scaled), ElementsAre("linear"));
}

TEST(FoldBatchNorm, NotALinearAlongAnotherDimension) {
  FoldNetwork network;
  const ValueId rows = network.Input("rows", {3, 2});
  const ValueId linear = network.Call("linear", {{"x", {rows}}, {"weight", {network.Constant(Ramp({3, 2}))}}});
  const ValueId scaled = network.Binary("mul", linear, network.Constant(Tensor::Floats({3, 1}, {1, 2, 3})));
  EXPECT_THAT(network.Folded(scaled), ElementsAre("linear", "mul"));
}

TEST(FoldBatchNorm, SharedWeightsStayWithTheOther) {
  FoldNetwork network;
  const ValueId weight = network.Constant(Ramp({3, 2, 1, 1}));
  const ValueId first = network.Call("conv", {{"x", {network.x}}, {"weight", {weight}}});
  const ValueId second = network.Call("conv", {{"x", {network.x}}, {"weight", {weight}}});
  network.Output(second);
  EXPECT_THAT(network.Folded(network.Binary("mul", first, 3.0F)), ElementsAre("conv", "conv"));
}

TEST(FoldBatchNorm, NotWhereTheConvolutionServesSomethingElse) {
  FoldNetwork network;
  const ValueId conv = network.Conv(network.x, 2, 3);
  const ValueId scaled = network.Binary("mul", conv, 2.0F);
  EXPECT_THAT(network.Folded(network.Binary("add", scaled, conv)), ElementsAre("conv", "mul", "add"));
}

TEST(FoldBatchNorm, NotWhereTheConvolutionIsAnOutput) {
  FoldNetwork network;
  const ValueId conv = network.Conv(network.x, 2, 3);
  network.Output(conv);
  EXPECT_THAT(network.Folded(network.Binary("mul", conv, 2.0F)), ElementsAre("conv", "mul"));
}

TEST(FoldBatchNorm, NotConstantsThatVaryInSpaceOrWidenTheResult) {
  FoldNetwork varying;
  const ValueId conv = varying.Conv(varying.x, 2, 3);
  EXPECT_THAT(varying.Folded(varying.Binary("mul", conv, varying.Constant(Ramp({1, 1, 3})))),
              ElementsAre("conv", "mul"));
  FoldNetwork widening;
  const ValueId other = widening.Conv(widening.x, 2, 3);
  EXPECT_THAT(widening.Folded(widening.Binary("mul", other, widening.Constant(Ramp({1, 1, 1, 1, 1})))),
              ElementsAre("conv", "mul"));
}

TEST(FoldBatchNorm, NotADivisionOfTheConstant) {
  FoldNetwork network;
  const ValueId conv = network.Binary("add", network.Conv(network.x, 2, 3), 100.0F);
  EXPECT_THAT(network.Folded(network.Binary("real_div", network.Scalar(1.0F), conv)), ElementsAre("conv", "real_div"));
}

TEST(FoldBatchNorm, NotWhatFloat32CannotHold) {
  for (const float scale : {1e38F, 1e-38F, std::numeric_limits<float>::infinity()}) {
    FoldNetwork network;
    const ValueId weight = network.Constant(Ramp({3, 2, 1, 1}, 10.0F));
    const ValueId small = network.Constant(Ramp({3, 2, 1, 1}, 0.01F, 0.01F));
    const ValueId conv = network.Call("conv", {{"x", {network.x}}, {"weight", {scale < 1.0F ? small : weight}}});
    network.Output(network.Binary("mul", conv, scale));
    Program program = Specialized(network.program);
    FoldBatchNorm(program);
    EXPECT_THAT(KeysOf(program), ElementsAre("conv", "mul")) << scale;
  }
}

TEST(FoldBatchNorm, NotRunTimeWeights) {
  FoldNetwork network;
  const ValueId weight = network.Input("weight", {3, 2, 1, 1});
  const ValueId conv = network.Call("conv", {{"x", {network.x}}, {"weight", {weight}}});
  EXPECT_THAT(network.Folded(network.Binary("mul", conv, 2.0F)), ElementsAre("conv", "mul"));
}

}  // namespace
}  // namespace ulmora::engine::program
