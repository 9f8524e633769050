#include "tests/engine/program/passes/PassTesting.h"

#include <limits>
#include <numbers>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

/// Constants as converters write them in half precision.
constexpr float kHalfOfCubic = 0.044708252F;
constexpr float kHalfOfRoot = 0.70703125F;
constexpr float kHalfOfSixth = 0.16662598F;

struct Network : NetworkBuilder {
  ValueId x = Input("x", {1, 2, 5, 7});

  std::vector<std::string> Recognized(ValueId output, double tolerance = 1e-6) {
    Output(output);
    return KeysOf(Rewritten(program, RecognizeActivations, tolerance));
  }

  /// x * sigmoid_hard(x), cut off below.
  ValueId ConvertedHardSwish() {
    const ValueId cut = Call("thresholded_relu", {{"x", {x}}, {"alpha", {Scalar(-3.0F)}}});
    const ValueId gate = HardSigmoid(cut);
    return Binary("mul", cut, gate);
  }

  ValueId HardSigmoid(ValueId value) {
    return Call("sigmoid_hard", {{"x", {value}}, {"alpha", {Scalar(1.0F / 6)}}, {"beta", {Scalar(0.5F)}}});
  }

  ValueId Erf(ValueId inside) { return Binary("add", Unary("erf", inside), 1.0F); }

  ValueId Half(float value) { return Constant(Tensor::Floats({}, {value}, ElementType::Float16)); }

  /// The cubic of the tanh form.
  ValueId Cubic(ValueId cube) { return Cubic(cube, Scalar(0.044715F)); }
  ValueId Cubic(ValueId cube, ValueId factor) { return Binary("add", x, Binary("mul", cube, factor)); }

  /// x / 2 * (1 + erf(argument * x))
  ValueId GeluOf(ValueId argument) { return Binary("mul", Binary("mul", x, 0.5F), Erf(Binary("mul", x, argument))); }
  ValueId TanhOf(ValueId cubic) {
    return Unary("tanh", Binary("mul", cubic, static_cast<float>(std::sqrt(2.0 / std::numbers::pi))));
  }
};

TEST(RecognizeActivations, Silu) {
  Network network;
  EXPECT_THAT(network.Recognized(network.Binary("mul", network.x, network.Unary("sigmoid", network.x))),
              ElementsAre("silu"));
  Network swapped;
  EXPECT_THAT(swapped.Recognized(swapped.Binary("mul", swapped.Unary("sigmoid", swapped.x), swapped.x)),
              ElementsAre("silu"));
}

TEST(RecognizeActivations, NotAGateOfSomethingElse) {
  Network network;
  const ValueId other = network.Unary("exp", network.x);
  EXPECT_THAT(network.Recognized(network.Binary("mul", network.x, network.Unary("sigmoid", other))),
              ElementsAre("exp", "sigmoid", "mul"));
}

TEST(RecognizeActivations, NotWhereTheGateServesSomethingElse) {
  Network network;
  const ValueId gate = network.Unary("sigmoid", network.x);
  const ValueId gated = network.Binary("mul", network.x, gate);
  EXPECT_THAT(network.Recognized(network.Binary("add", gated, gate)), ElementsAre("sigmoid", "mul", "add"));
  Network output;
  const ValueId visible = output.Unary("sigmoid", output.x);
  output.Output(visible);
  EXPECT_THAT(output.Recognized(output.Binary("mul", output.x, visible)), ElementsAre("sigmoid", "mul"));
}

TEST(RecognizeActivations, GeluExactInSeveralNestings) {
  Network first;  // (0.5 x) * (1 + erf(x / sqrt 2))
  EXPECT_THAT(
      first.Recognized(first.Binary("mul", first.Binary("mul", first.x, 0.5F),
                                    first.Erf(first.Binary("real_div", first.x, std::numbers::sqrt2_v<float>)))),
      ElementsAre("gelu"));
  Network second;  // x * (0.5 * (1 + erf(0.7071 x)))
  const ValueId half = second.Binary("mul", second.Erf(second.Binary("mul", second.x, second.Half(kHalfOfRoot))), 0.5F);
  EXPECT_THAT(second.Recognized(second.Binary("mul", second.x, half), 1e-3), ElementsAre("gelu"));
  Network third;  // (x * (1 + erf)) * 0.5
  const ValueId product = third.Binary("mul", third.Erf(third.Binary("mul", third.x, 0.70710678F)), third.x);
  EXPECT_THAT(third.Recognized(third.Binary("mul", third.Scalar(0.5F), product)), ElementsAre("gelu"));
  Network fourth;  // x * (0.5 + 0.5 erf)
  const ValueId erf = fourth.Unary("erf", fourth.Binary("mul", fourth.x, 0.70710678F));
  const ValueId gate = fourth.Binary("add", fourth.Binary("mul", erf, 0.5F), 0.5F);
  EXPECT_THAT(fourth.Recognized(fourth.Binary("mul", fourth.x, gate)), ElementsAre("gelu"));
}

TEST(RecognizeActivations, NotAlmostGelu) {
  Network scale;
  EXPECT_THAT(scale.Recognized(scale.Binary("mul", scale.Binary("mul", scale.x, 0.6F),
                                            scale.Erf(scale.Binary("mul", scale.x, 0.70710678F)))),
              SizeIs(5));
  Network argument;
  EXPECT_THAT(argument.Recognized(argument.Binary("mul", argument.Binary("mul", argument.x, 0.5F),
                                                  argument.Erf(argument.Binary("mul", argument.x, 0.75F)))),
              SizeIs(5));
  Network other;
  const ValueId y = other.Input("y", {1, 2, 5, 7});
  EXPECT_THAT(other.Recognized(other.Binary("mul", other.Binary("mul", y, 0.5F),
                                            other.Erf(other.Binary("mul", other.x, 0.70710678F)))),
              SizeIs(5));
}

TEST(RecognizeActivations, ConstantsMayBeOffByTheRoundingOfTheirTypeAlone) {
  const float root = static_cast<float>(std::numbers::sqrt2 / 2.0);
  Network exact;
  EXPECT_THAT(exact.Recognized(exact.GeluOf(exact.Scalar(root))), ElementsAre("gelu"));
  Network lastPlaces;
  EXPECT_THAT(lastPlaces.Recognized(lastPlaces.GeluOf(lastPlaces.Scalar(root * (1.0F + 0x1p-23F)))),
              ElementsAre("gelu"));
  Network half;
  EXPECT_THAT(half.Recognized(half.GeluOf(half.Half(kHalfOfRoot)), 1e-3), ElementsAre("gelu"));
  // The same number in single precision was meant as it is; and so was the next but one in half precision.
  Network single;
  EXPECT_THAT(single.Recognized(single.GeluOf(single.Scalar(kHalfOfRoot))), SizeIs(5));
  Network other;
  EXPECT_THAT(other.Recognized(other.GeluOf(other.Half(kHalfOfRoot - 2 * 0x1p-11F))), SizeIs(5));
}

TEST(RecognizeActivations, GeluByTanhInSeveralForms) {
  Network pow;
  const ValueId cube = pow.Binary("pow", pow.x, 3.0F);
  const ValueId gate = pow.Binary("add", pow.TanhOf(pow.Cubic(cube, pow.Half(kHalfOfCubic))), 1.0F);
  EXPECT_THAT(pow.Recognized(pow.Binary("mul", pow.Binary("mul", pow.x, 0.5F), gate), 1e-3), ElementsAre("gelu"));
  Network products;
  const ValueId power = products.Binary("mul", products.Binary("mul", products.x, products.x), products.x);
  const ValueId factor = products.Binary("add", products.Scalar(1.0F), products.TanhOf(products.Cubic(power)));
  EXPECT_THAT(products.Recognized(products.Binary("mul", products.Binary("mul", products.x, factor), 0.5F)),
              ElementsAre("gelu"));
  Network factored;  // tanh(sqrt(2/pi) x (1 + 0.044715 x^2))
  const ValueId square = factored.Binary("mul", factored.Unary("square", factored.x), 0.044715F);
  const ValueId bracket = factored.Binary("mul", factored.x, factored.Binary("add", square, 1.0F));
  const ValueId sum = factored.Binary("add", factored.TanhOf(bracket), 1.0F);
  EXPECT_THAT(factored.Recognized(factored.Binary("mul", factored.Binary("mul", factored.x, 0.5F), sum)),
              ElementsAre("gelu"));
}

TEST(RecognizeActivations, NotAnotherPowerInTheTanh) {
  Network network;
  const ValueId square = network.Binary("pow", network.x, 2.0F);
  const ValueId gate = network.Binary("add", network.TanhOf(network.Cubic(square)), 1.0F);
  EXPECT_THAT(network.Recognized(network.Binary("mul", network.Binary("mul", network.x, 0.5F), gate)), SizeIs(8));
}

TEST(RecognizeActivations, GeluBySigmoid) {
  Network network;
  const ValueId gate = network.Unary("sigmoid", network.Binary("mul", network.x, 1.702F));
  const Program program = [&] {
    network.Output(network.Binary("mul", network.x, gate));
    return Rewritten(network.program, RecognizeActivations);
  }();
  EXPECT_THAT(KeysOf(program), ElementsAre("gelu"));
}

TEST(RecognizeActivations, Mish) {
  Network network;
  const ValueId gate = network.Unary("tanh", network.Unary("softplus", network.x));
  EXPECT_THAT(network.Recognized(network.Binary("mul", network.x, gate)), ElementsAre("mish"));
}

TEST(RecognizeActivations, HardSwish) {
  Network converted;
  EXPECT_THAT(converted.Recognized(converted.ConvertedHardSwish()), ElementsAre("hard_swish"));
  Network plain;
  EXPECT_THAT(plain.Recognized(plain.Binary("mul", plain.HardSigmoid(plain.x), plain.x)), ElementsAre("hard_swish"));
  Network written;  // x * relu6(x + 3) / 6
  const ValueId gate = written.Unary("relu6", written.Binary("add", written.x, 3.0F));
  EXPECT_THAT(written.Recognized(written.Binary("real_div", written.Binary("mul", written.x, gate), 6.0F)),
              ElementsAre("hard_swish"));
  Network gated;  // x * (relu6(x + 3) / 6)
  const ValueId hard = gated.Unary("relu6", gated.Binary("add", gated.x, 3.0F));
  EXPECT_THAT(gated.Recognized(gated.Binary("mul", gated.x, gated.Binary("mul", hard, 1.0F / 6))),
              ElementsAre("hard_swish"));
}

TEST(RecognizeActivations, HardSwishInHalfPrecision) {
  Network network;
  const ValueId cut = network.Call("thresholded_relu", {{"x", {network.x}}, {"alpha", {network.Half(-3.0F)}}});
  const ValueId gate = network.Call(
      "sigmoid_hard", {{"x", {cut}}, {"alpha", {network.Half(kHalfOfSixth)}}, {"beta", {network.Half(0.5F)}}});
  EXPECT_THAT(network.Recognized(network.Binary("mul", cut, gate), 1e-3), ElementsAre("hard_swish"));
}

TEST(RecognizeActivations, HardSwishKeepsACutThatMatters) {
  Network network;
  const ValueId cut = network.Call("thresholded_relu", {{"x", {network.x}}, {"alpha", {network.Scalar(-1.0F)}}});
  EXPECT_THAT(network.Recognized(network.Binary("mul", cut, network.HardSigmoid(cut))),
              ElementsAre("thresholded_relu", "hard_swish"));
}

TEST(RecognizeActivations, ReluByMaximumThresholdAndClip) {
  Network maximum;
  EXPECT_THAT(maximum.Recognized(maximum.Binary("maximum", maximum.Scalar(0.0F), maximum.x)), ElementsAre("relu"));
  Network threshold;
  EXPECT_THAT(
      threshold.Recognized(threshold.Call("threshold", {{"x", {threshold.x}}, {"alpha", {threshold.Scalar(0)}}})),
      ElementsAre("relu"));
  const auto clip = [](float low, float high) {
    Network network;
    return network.Recognized(
        network.Call("clip", {{"x", {network.x}}, {"alpha", {network.Scalar(low)}}, {"beta", {network.Scalar(high)}}}));
  };
  EXPECT_THAT(clip(0, std::numeric_limits<float>::max()), ElementsAre("relu"));
  EXPECT_THAT(clip(0, std::numeric_limits<float>::infinity()), ElementsAre("relu"));
  EXPECT_THAT(clip(0, 6), ElementsAre("relu6"));
  EXPECT_THAT(clip(0, 1), ElementsAre("clip"));
  EXPECT_THAT(clip(-1, 6), ElementsAre("clip"));
}

TEST(RecognizeActivations, Relu6ByTwoBounds) {
  Network network;
  const ValueId relu = network.Binary("maximum", network.x, 0.0F);
  EXPECT_THAT(network.Recognized(network.Binary("minimum", relu, 6.0F)), ElementsAre("relu6"));
}

TEST(RecognizeActivations, LeakyRelu) {
  Network network;
  EXPECT_THAT(network.Recognized(network.Binary("maximum", network.x, network.Binary("mul", network.x, 0.1F))),
              ElementsAre("leaky_relu"));
  Network steep;
  EXPECT_THAT(steep.Recognized(steep.Binary("maximum", steep.x, steep.Binary("mul", steep.x, 2.0F))),
              ElementsAre("mul", "maximum"));
}

TEST(RecognizeActivations, NotWhereAConstantWidensTheResult) {
  Network network;
  const ValueId zeros = network.Constant(Tensor::Floats({1, 1, 1, 1, 1}, {0}));
  EXPECT_THAT(network.Recognized(network.Binary("maximum", network.x, zeros)), ElementsAre("maximum"));
}

TEST(RecognizeActivations, NotIntegers) {
  Network network;
  const ValueId whole = network.Cast(network.x, "int32", ElementType::Int32);
  const ValueId zero = network.Constant(Tensor::Int(0));
  const ValueId clipped = network.Call("maximum", {{"x", {whole}}, {"y", {zero}}}, {ElementType::Int32, {}, false});
  EXPECT_THAT(network.Recognized(network.Cast(clipped, "fp32", ElementType::Float32)),
              ElementsAre("cast", "maximum", "cast"));
}

TEST(RecognizeActivations, DeepProductsEnd) {
  Network network;
  ValueId value = network.x;
  for (int i = 0; i < 50000; ++i) value = network.Binary("mul", value, 1.0F);
  network.Output(value);
  Program program = Specialized(network.program);
  RecognizeActivations(program);
  EXPECT_THAT(program.operations, SizeIs(50000));
}

}  // namespace
}  // namespace ulmora::engine::program
