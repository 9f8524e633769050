#include "engine/program/passes/Pipeline.h"
#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

constexpr ElementType kHalf = ElementType::Float16;

/// Operations on half-precision values, as converters write them.
struct HalfNetwork : NetworkBuilder {
  ValueId Half(std::string_view key, const std::map<std::string, Operands>& arguments) {
    return Call(key, arguments, {kHalf, {}, false});
  }
  ValueId HalfConstant(Tensor tensor) { return Constant(tensor.Retyped(kHalf)); }

  ValueId HalfConv(ValueId x, std::int64_t in, std::int64_t out) {
    return Half("conv", {{"x", {x}},
                         {"weight", {HalfConstant(Ramp({out, in, 3, 3}, -0.2F, 0.01F))}},
                         {"bias", {HalfConstant(Ramp({out}, 0.1F))}},
                         {"pad_type", {Constant(Tensor::Text("same"))}}});
  }
};

TEST(Pipeline, AConvertedResidualBlockBecomesTwoConvolutions) {
  HalfNetwork network;
  const ValueId x = network.Input("x", {1, 3, 6, 6});
  const ValueId half = network.Cast(x, "fp16", kHalf);
  const ValueId first = network.HalfConv(half, 3, 4);
  const ValueId norm = network.Half("batch_norm", {{"x", {first}},
                                                   {"mean", {network.HalfConstant(Ramp({4}))}},
                                                   {"variance", {network.HalfConstant(Ramp({4}, 1.0F))}}});
  const ValueId gate = network.Half("sigmoid", {{"x", {norm}}});
  const ValueId silu = network.Half("mul", {{"x", {norm}}, {"y", {gate}}});
  network.Half("exp", {{"x", {silu}}});
  const ValueId second = network.HalfConv(silu, 4, 3);
  const ValueId sum = network.Half("sub", {{"x", {half}}, {"y", {second}}});
  const ValueId y = network.Cast(sum, "fp32", ElementType::Float32);
  network.Output(y);
  const Program program = Rewritten(network.program, Rewrite, 1e-5);
  EXPECT_THAT(KeysOf(program), ElementsAre("conv+silu", "conv+linear_activation+add"));
  EXPECT_EQ(program.outputs, (std::vector<ValueId>{y}));
}

TEST(Pipeline, AWrittenOutGeluKeepsItsHalfFromTheConvolution) {
  NetworkBuilder network;
  const ValueId x = network.Input("x", {1, 2, 3, 3});
  const ValueId conv = network.Conv(x, 2, 2);
  const ValueId erf = network.Unary("erf", network.Binary("mul", conv, 0.70710678F));
  const ValueId gate = network.Binary("add", erf, 1.0F);
  network.Output(network.Binary("mul", network.Binary("mul", conv, 0.5F), gate));
  EXPECT_THAT(KeysOf(Rewritten(network.program, Rewrite, 1e-5)), ElementsAre("conv+gelu"));
}

TEST(Pipeline, OutputsKeepOrderAndTypes) {
  HalfNetwork network;
  const ValueId x = network.Input("x", {1, 2, 3, 3});
  const ValueId half = network.Cast(x, "fp16", kHalf);
  const ValueId relu = network.Half("relu", {{"x", {half}}});
  network.Output(half);
  network.Output(relu);
  network.Output(network.Cast(relu, "fp32", ElementType::Float32));
  network.Output(x);
  const Program program = Rewritten(network.program, Rewrite);
  EXPECT_EQ(program.outputs, network.program.outputs);
}

}  // namespace
}  // namespace ulmora::engine::program
