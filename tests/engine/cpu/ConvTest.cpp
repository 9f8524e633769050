// conv and conv_transpose compiled against their reference evaluation, with and without fused steps.

#include "engine/program/OpRegistry.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

using program::Operands;
using program::ProgramBuilder;
using program::ValueId;

/// Sums of up to a few thousand products of numbers around one.
constexpr Tolerance kSums = {2e-5, 2e-5};

struct ConvParameters {
  std::size_t spatial = 2;
  std::int64_t groups = 1;
  std::int64_t inputs = 1;   ///< channels, all groups
  std::int64_t outputs = 1;  ///< channels, all groups
};

/// Channels as networks have them and as nobody would.
ConvParameters RandomChannels(Random& random) {
  ConvParameters p;
  p.spatial = static_cast<std::size_t>(random.Pick<int>({1, 2, 2, 2, 2, 3}));
  p.groups = random.Pick<std::int64_t>({1, 1, 1, 2, 3, 16});
  p.inputs = p.groups * random.Pick<std::int64_t>({1, 3, 8, 16, 17});
  p.outputs = p.groups * random.Pick<std::int64_t>({1, 2, 8, 16, 21});
  if (random.Int(0, 5) == 0) p.outputs = p.inputs = p.groups = 32;  // depthwise
  return p;
}

OpCase RandomConv(Random& random, bool transposed) {
  const ConvParameters p = RandomChannels(random);
  OpCase c;
  c.key = transposed ? "conv_transpose" : "conv";
  Shape x = {random.Int(1, 2), p.inputs};
  Shape weight = transposed ? Shape{p.inputs, p.outputs / p.groups} : Shape{p.outputs, p.inputs / p.groups};
  std::vector<std::int64_t> strides, dilations, pad;
  for (std::size_t i = 0; i < p.spatial; ++i) {
    const std::int64_t kernel = random.Pick<std::int64_t>({1, 2, 3, 3, 5});
    const std::int64_t dilation = random.Pick<std::int64_t>({1, 1, 2});
    const std::int64_t span = (kernel - 1) * dilation + 1;
    weight.push_back(kernel);
    strides.push_back(random.Pick<std::int64_t>({1, 1, 2, 3}));
    dilations.push_back(dilation);
    pad.push_back(random.Int(0, span - 1));
    pad.push_back(random.Int(0, span - 1));
    x.push_back(transposed ? span + random.Int(0, 6) : std::max<std::int64_t>(1, span + random.Int(0, 9)));
  }
  c.running["x"] = {random.Floats(x)};
  c.constants.emplace("weight", random.Floats(weight));
  if (random.Coin()) c.constants.emplace("bias", random.Floats({p.outputs}));
  c.constants.emplace("strides", Ints(strides));
  c.constants.emplace("dilations", Ints(dilations));
  c.constants.emplace("groups", Tensor::Int(static_cast<std::int32_t>(p.groups)));
  c.constants.emplace("pad", Ints(pad));
  c.constants.emplace("pad_type", Tensor::Text(random.Pick<std::string>({"valid", "same", "custom", "custom"})));
  return c;
}

TEST(CompiledConv, AgreesInAllForms) {
  for (std::uint32_t seed = 1; seed <= 40; ++seed) {
    Random random(seed);
    SCOPED_TRACE("seed " + std::to_string(random.seed()));
    ExpectSame(RandomConv(random, false), kSums);
  }
}

TEST(CompiledConv, TransposedAgreesInAllForms) {
  for (std::uint32_t seed = 101; seed <= 140; ++seed) {
    Random random(seed);
    SCOPED_TRACE("seed " + std::to_string(random.seed()));
    ExpectSame(RandomConv(random, true), kSums);
  }
}

TEST(CompiledConv, TransposedLongerThanItsFormulaIsFilledUp) {
  Random random(7);
  OpCase c;
  c.key = "conv_transpose";
  c.running["x"] = {random.Floats({1, 16, 5, 6})};
  c.constants.emplace("weight", random.Floats({16, 8, 3, 3}));
  c.constants.emplace("bias", random.Floats({8}));
  c.constants.emplace("strides", Tensor::IntVector({2, 2}));
  c.constants.emplace("pad_type", Tensor::Text("custom"));
  c.constants.emplace("pad", Tensor::IntVector({1, 1, 1, 1}));
  for (const int more : {0, 1, 3}) {
    c.constants.insert_or_assign("output_shape", Tensor::IntVector({1, 8, 9 + more, 11 + more}));
    ExpectSame(c, kSums);
  }
}

TEST(CompiledConv, TakesWeightsThatArriveAtRunTime) {
  Random random(8);
  OpCase c;
  c.key = "conv";
  c.opset = 7;
  c.running["x"] = {random.Floats({1, 8, 9, 7})};
  c.running["weight"] = {random.Floats({16, 8, 3, 3})};
  c.running["bias"] = {random.Floats({16})};
  c.constants.emplace("pad_type", Tensor::Text("same"));
  ExpectSame(c, kSums);
}

/// Winograd rounds differently, so its tolerance is a little wider.
TEST(CompiledConv, WinogradAgrees) {
  Random random(9);
  for (const std::int64_t channels : {32, 48, 64, 50}) {
    OpCase c;
    c.key = "conv";
    c.running["x"] = {random.Floats({1, channels, 13, 18})};
    c.constants.emplace("weight", random.Floats({channels, channels, 3, 3}));
    c.constants.emplace("pad_type", Tensor::Text("same"));
    ExpectSame(c, {5e-5, 5e-5});
  }
}

// ---- fused steps

/// What is fused to a convolution: keys of steps, each with the kind of its other operand.
struct StepCase {
  std::string key;
  enum class Other { None, Scalar, Channel, Constant, Computed, Input } other = Other::None;
  bool flowsIntoY = false;
};

/// x -> conv (C to C, 3x3) -> steps; "Computed" operands come from another convolution of x.
class FusedNetwork {
 public:
  FusedNetwork(Random& random, std::int64_t channels, bool useWinogradSize)
      : random_(random), shape_{1, channels, useWinogradSize ? 16 : 7, useWinogradSize ? 16 : 9} {
    input_ = builder_.Input("x", shape_);
    other_ = Convolution(input_);
    main_ = Convolution(input_);
  }

  void Add(const StepCase& step) {
    const program::OpDefinition* definition = program::FindOp(step.key);
    program::FusedStep fused{definition, std::vector<Operands>(definition->parameters.size())};
    const auto set = [&](std::string_view parameter, ValueId id) {
      fused.arguments[static_cast<std::size_t>(definition->IndexOf(parameter))] = {id};
    };
    set(step.flowsIntoY ? "y" : "x", program::kPrevious);
    if (step.other != StepCase::Other::None) set(step.flowsIntoY ? "x" : "y", OtherOperand(step.other));
    for (const auto& [parameter, value] : std::map<std::string_view, float>{{"alpha", 0.3F}, {"beta", 0.7F}}) {
      if (definition->IndexOf(parameter) < 0) continue;
      set(parameter, builder_.Constant(step.key == "prelu" ? random_.Floats({shape_[1]}) : Tensor::Float(value)));
    }
    builder_.program.operations[Producer()].fused.push_back(std::move(fused));
  }

  /// `keepOther`: the other convolution's result is read later, too, and must survive.
  program::Program Finish(bool keepOther) {
    const ValueId result =
        keepOther ? builder_.Call("add", {{"x", {main_}}, {"y", {other_}}}, program::FloatType(shape_)) : main_;
    builder_.Output(result);
    return builder_.program;
  }

  [[nodiscard]] const Shape& shape() const { return shape_; }

 private:
  [[nodiscard]] std::size_t Producer() const { return 1; }

  ValueId Convolution(ValueId x) {
    const ValueId weight = builder_.Constant(random_.Floats({shape_[1], shape_[1], 3, 3}, -0.2F, 0.2F));
    const ValueId same = builder_.Constant(Tensor::Text("same"));
    return builder_.Call("conv", {{"x", {x}}, {"weight", {weight}}, {"pad_type", {same}}}, program::FloatType(shape_));
  }

  ValueId OtherOperand(StepCase::Other other) {
    switch (other) {
      case StepCase::Other::Scalar:
        return builder_.Constant(Tensor::Float(0.6F));
      case StepCase::Other::Channel:
        return builder_.Constant(random_.Floats({shape_[1], 1, 1}, 0.5F, 1.5F));
      case StepCase::Other::Constant:
        return builder_.Constant(random_.Floats(shape_, 0.5F, 1.5F));
      case StepCase::Other::Input:
        return input_;
      default:
        return other_;
    }
  }

  Random& random_;
  Shape shape_;
  ProgramBuilder builder_;
  ValueId input_ = 0;
  ValueId other_ = 0;
  ValueId main_ = 0;
};

using Other = StepCase::Other;

/// With channels that fill blocks, that do not, and that are enough for Winograd.
void ExpectFusedSame(const std::vector<StepCase>& steps,
                     const std::vector<std::int64_t>& channelCounts = {3, 16, 20, 32}) {
  std::string name;
  for (const StepCase& step : steps) name += step.key + std::to_string(static_cast<int>(step.other)) + " ";
  SCOPED_TRACE(name);
  for (const std::int64_t channels : channelCounts) {
    for (const bool keepOther : {false, true}) {
      const bool readsOther = std::ranges::any_of(steps, [](const StepCase& s) { return s.other == Other::Computed; });
      if (keepOther && !readsOther) continue;
      Random random(static_cast<std::uint32_t>(channels));
      FusedNetwork network(random, channels, channels == 32);
      for (const StepCase& step : steps) network.Add(step);
      const Tensor input = random.Floats(network.shape());
      SCOPED_TRACE("channels " + std::to_string(channels));
      ExpectSame(network.Finish(keepOther), input, {1e-4, 1e-4});
    }
  }
}

TEST(CompiledConv, FusesActivations) {
  for (const std::string key : {"relu", "relu6", "sigmoid", "silu", "tanh", "mish", "abs", "square", "leaky_relu",
                                "elu", "sigmoid_hard", "hard_swish", "clip", "linear_activation", "gelu", "prelu"}) {
    ExpectFusedSame({{key}}, {3, 16, 20});
  }
}

/// Those that the Winograd kernels do themselves, and one that they leave to a step of its own.
TEST(CompiledConv, FusesActivationsToWinograd) {
  for (const std::string key : {"relu", "leaky_relu", "relu6", "clip", "linear_activation", "abs", "tanh"}) {
    ExpectFusedSame({{key}}, {32});
  }
}

TEST(CompiledConv, FusesBinarySteps) {
  for (const std::string key : {"add", "mul", "maximum", "minimum", "sub", "real_div"}) {
    for (const Other other : {Other::Scalar, Other::Channel, Other::Constant, Other::Computed, Other::Input}) {
      if (key == "real_div" && (other == Other::Computed || other == Other::Input)) continue;  // by numbers near zero
      ExpectFusedSame({{key, other}}, {16, 20, 32});
    }
  }
}

TEST(CompiledConv, FusesIntoTheSecondOperand) {
  for (const std::string key : {"add", "mul", "maximum"}) ExpectFusedSame({{key, Other::Computed, true}});
}

TEST(CompiledConv, FusesChains) {
  ExpectFusedSame({{"add", Other::Computed}, {"relu"}});
  ExpectFusedSame({{"relu"}, {"add", Other::Computed}});
  ExpectFusedSame({{"relu"}, {"add", Other::Input}});
  ExpectFusedSame({{"silu"}, {"mul", Other::Channel}, {"add", Other::Computed}, {"clip"}});
  ExpectFusedSame({{"add", Other::Computed}, {"add", Other::Computed}, {"mul", Other::Computed}});
  ExpectFusedSame({{"linear_activation"}, {"add", Other::Input}, {"prelu"}, {"mul", Other::Scalar}});
}

}  // namespace
}  // namespace ulmora::engine::cpu
