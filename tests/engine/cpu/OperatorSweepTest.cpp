// Elementwise operations compiled in every layout against their reference evaluation: random shapes and attributes,
// sizes of 1, channels that fill blocks and channels that do not.

#include "engine/cpu/Lowering.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Specialize.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <set>

namespace ulmora::engine::cpu {
namespace {

void SweepUnary(const std::string& key, float low, float high, const Tolerance& tolerance = {},
                const std::map<std::string, Tensor>& constants = {}) {
  ForSeeds([&](Random& random) {
    OpCase c{key, {}, constants};
    c.running["x"] = {random.Floats(RandomImage(random), low, high)};
    ExpectSame(c, tolerance);
  });
}

TEST(OperatorSweep, UnaryFunctions) {
  for (const std::string key : {"abs", "asinh", "atan", "ceil", "cos", "cosh", "erf", "exp", "exp2", "floor", "round",
                                "sign", "sin", "sinh", "square", "tanh"}) {
    SweepUnary(key, -3.0F, 3.0F, {4e-6, 4e-6});
  }
  for (const std::string key : {"acos", "asin", "atanh"}) SweepUnary(key, -0.95F, 0.95F);
  SweepUnary("acosh", 1.0F, 30.0F);
  SweepUnary("tan", -1.3F, 1.3F);
  SweepUnary("sqrt", 0.0F, 9.0F);
  SweepUnary("log", 0.01F, 5.0F);
  SweepUnary("rsqrt", 0.1F, 5.0F);
  SweepUnary("inverse", 0.1F, 5.0F);
  SweepUnary("clip", -2.0F, 2.0F, {}, {{"alpha", Tensor::Float(-0.5F)}, {"beta", Tensor::Float(1.0F)}});
  // Bounds that cross: the upper one wins.
  SweepUnary("clip", -2.0F, 2.0F, {}, {{"alpha", Tensor::Float(0.5F)}, {"beta", Tensor::Float(-1.0F)}});
  SweepUnary("threshold", -2.0F, 2.0F, {}, {{"alpha", Tensor::Float(0.2F)}});
}

TEST(OperatorSweep, LogOfZeroKeepsItsEpsilon) {
  OpCase c{"log", {}, {}};
  c.running["x"] = {Tensor::Floats({3}, {0.0F, 1.0F, 0.0F})};
  ExpectSame(c, {1e-5, 1e-5});
}

TEST(OperatorSweep, SignOfNoNumberIsNone) {
  OpCase c{"sign", {}, {}};
  c.running["x"] = {Tensor::Floats({4}, {std::numeric_limits<float>::quiet_NaN(), -2.0F, 0.0F, 3.0F})};
  ExpectSame(c);
}

TEST(OperatorSweep, Activations) {
  const Tensor alpha = Tensor::Float(0.3F);
  const Tensor beta = Tensor::Float(0.7F);
  for (const std::string key : {"relu", "relu6", "sigmoid", "silu", "softplus", "softsign", "tanh", "mish"}) {
    SweepUnary(key, -8.0F, 8.0F, {4e-6, 4e-6});
  }
  for (const std::string key : {"leaky_relu", "elu", "thresholded_relu"}) {
    SweepUnary(key, -3.0F, 3.0F, {4e-6, 4e-6}, {{"alpha", alpha}});
  }
  for (const std::string key : {"sigmoid_hard", "scaled_tanh", "clamped_relu", "linear_activation", "hard_swish"}) {
    SweepUnary(key, -3.0F, 3.0F, {4e-6, 4e-6}, {{"alpha", alpha}, {"beta", beta}});
  }
  SweepUnary("hard_swish", -6.0F, 6.0F, {}, {{"alpha", Tensor::Float(1.0F / 6)}, {"beta", Tensor::Float(0.5F)}});
  for (const std::string mode : {"EXACT", "TANH_APPROXIMATION", "SIGMOID_APPROXIMATION"}) {
    SweepUnary("gelu", -5.0F, 5.0F, {4e-6, 4e-6}, {{"mode", Tensor::Text(mode)}});
  }
}

TEST(OperatorSweep, Prelu) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    OpCase c{"prelu", {{"x", {random.Floats(shape)}}}, {{"alpha", random.Floats({shape[1]})}}};
    ExpectSame(c);
  });
}

TEST(OperatorSweep, Softmax) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    const auto axis = static_cast<std::int32_t>(random.Int(-1, static_cast<std::int64_t>(shape.size()) - 1));
    OpCase c{"softmax", {{"x", {random.Floats(shape, -4.0F, 4.0F)}}}, {{"axis", Tensor::Int(axis)}}};
    ExpectSame(c, {1e-5, 1e-6});
  });
}

/// A shape that broadcasts to `shape`: some dimensions 1, some leading ones left out.
Shape RandomPart(Random& random, Shape shape) {
  for (std::int64_t& dim : shape) dim = random.Int(0, 2) == 0 ? 1 : dim;
  const std::int64_t dropped = random.Pick<std::int64_t>({0, 0, 0, 1, static_cast<std::int64_t>(shape.size())});
  shape.erase(shape.begin(), shape.begin() + dropped);
  return shape;
}

void SweepBinary(const std::string& key, float low, float high, const Tolerance& tolerance = {}) {
  ForSeeds([&](Random& random) {
    const Shape whole = RandomImage(random);
    const bool swapped = random.Coin();
    const Tensor a = random.Floats(whole, low, high);
    const Tensor b = random.Floats(random.Coin() ? whole : RandomPart(random, whole), low, high);
    OpCase c{key, {}, {}};
    c.running[swapped ? "y" : "x"] = {a};
    if (random.Coin()) {
      c.running[swapped ? "x" : "y"] = {b};
    } else {
      c.constants.emplace(swapped ? "x" : "y", b);
    }
    ExpectSame(c, tolerance);
  });
}

TEST(OperatorSweep, Arithmetic) {
  for (const std::string key : {"add", "sub", "mul", "maximum", "minimum"}) SweepBinary(key, -2.0F, 2.0F);
  for (const std::string key : {"real_div", "pow"}) SweepBinary(key, 0.3F, 2.0F, {4e-6, 4e-6});
  SweepBinary("floor_div", 0.5F, 7.0F);
  SweepBinary("mod", 0.5F, 7.0F, {1e-5, 1e-5});
}

TEST(OperatorSweep, OneTensorOnBothSides) {
  Random random(3);
  program::ProgramBuilder builder;
  const program::ValueId x = builder.Input("x", {1, 16, 4, 5});
  const program::ValueId relu = builder.Call("relu", {{"x", {x}}});
  builder.Output(builder.Call("mul", {{"x", {relu}}, {"y", {relu}}}));
  const program::Program& program = builder.program;
  ExpectSame(program::Specialize(program, {{1, 16, 4, 5}}), random.Floats({1, 16, 4, 5}));
}

TEST(OperatorSweep, ComparisonsAndLogic) {
  for (const std::string key : {"equal", "not_equal", "less", "less_equal", "greater", "greater_equal"}) {
    ForSeeds([&](Random& random) {
      const Shape shape = RandomImage(random);
      Tensor a = random.Floats(shape);
      std::vector<float> mixed(a.floats().begin(), a.floats().end());
      for (float& value : mixed) value = random.Coin() ? value : 0.25F;
      OpCase c{key, {{"x", {a}}, {"y", {Tensor::Floats(shape, mixed)}}}, {}};
      ExpectSame(c);
    });
  }
  const Tensor a = Tensor::Bools({4}, {0, 0, 1, 1});
  const Tensor b = Tensor::Bools({4}, {0, 1, 0, 1});
  for (const std::string key : {"logical_and", "logical_or", "logical_xor"}) {
    ExpectSame(OpCase{key, {{"x", {a}}, {"y", {b}}}, {}});
  }
  ExpectSame(OpCase{"logical_not", {{"x", {b}}}, {}});
}

TEST(OperatorSweep, Select) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    std::vector<std::uint8_t> flags(static_cast<std::size_t>(ElementCount(shape)));
    for (std::uint8_t& flag : flags) flag = random.Coin() ? 1 : 0;
    OpCase c{"select", {{"cond", {Tensor::Bools(shape, flags)}}, {"a", {random.Floats(shape)}}}, {}};
    c.constants.emplace("b", random.Floats(RandomPart(random, shape)));
    ExpectSame(c);
  });
}

TEST(OperatorSweep, Quantization) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    const bool perChannel = random.Coin();
    OpCase c{"quantize", {{"input", {random.Floats(shape, -3.0F, 3.0F)}}}, {}, 7};
    c.constants.emplace("scale", perChannel ? random.Floats({shape[1]}, 0.01F, 0.03F) : Tensor::Float(0.02F));
    if (perChannel) c.constants.emplace("axis", Tensor::Int(1));
    c.constants.emplace("output_dtype", Tensor::Text(random.Coin() ? "int8" : "uint8"));
    ExpectSame(c);
  });
  program::ProgramBuilder builder(7);
  const program::ValueId x = builder.Input("x", {1, 16, 4, 5});
  const program::ValueId scale = builder.Constant(Tensor::Float(0.05F));
  const program::ValueId dtype = builder.Constant(Tensor::Text("int8"));
  const program::ValueId q = builder.Call("quantize", {{"input", {x}}, {"scale", {scale}}, {"output_dtype", {dtype}}},
                                          {ElementType::Int8, {1, 16, 4, 5}, true});
  builder.Output(builder.Call("dequantize", {{"input", {q}}, {"scale", {scale}}}));
  Random random(9);
  ExpectSame(program::Specialize(builder.program, {{1, 16, 4, 5}}), random.Floats({1, 16, 4, 5}));
}

TEST(OperatorSweep, Casts) {
  const Tensor x = Tensor::Floats({2, 2}, {-1.7F, 0.0F, 2.5F, 9.9F});
  for (const std::string type : {"fp16", "fp32", "int32", "bool"}) {
    ExpectSame(OpCase{"cast", {{"x", {x}}}, {{"dtype", Tensor::Text(type)}}});
  }
  const Tensor flags = Tensor::Bools({3}, {1, 0, 1});
  ExpectSame(OpCase{"cast", {{"x", {flags}}}, {{"dtype", Tensor::Text("fp32")}}});
  Random random(1);
  ExpectSame(OpCase{"identity", {{"x", {random.Floats({1, 16, 2, 3})}}}, {}});
}

// ---- what every operation must have

TEST(Lowerings, EveryOperationHasOneOrIsDeclaredToRunByReference) {
  const std::vector<std::string_view>& declared = ReferenceOperations();
  for (const program::OpDefinition& definition : program::AllOps()) {
    const bool isDeclared = std::ranges::find(declared, definition.key) != declared.end();
    const bool isLowered = FindLowering(definition.key) != nullptr;
    EXPECT_TRUE(isLowered || isDeclared) << definition.key << " has neither a lowering nor a declared fallback";
    EXPECT_FALSE(isLowered && isDeclared) << definition.key << " has a lowering and is declared a fallback";
  }
  for (const std::string_view key : declared) EXPECT_NE(program::FindOp(key), nullptr) << key << " is no operation";
}

}  // namespace
}  // namespace ulmora::engine::cpu
