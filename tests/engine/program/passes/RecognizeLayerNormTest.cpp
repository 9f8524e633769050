#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

using Axes = std::vector<std::int32_t>;

struct Network : NetworkBuilder {
  ValueId x = Input("x", {2, 3, 4, 5});

  ValueId Mean(ValueId value, const Axes& axes) { return Reduce("reduce_mean", value, axes); }

  /// (x - mean) / sqrt(var + eps), the difference computed once.
  ValueId Divided(const Axes& axes) {
    const ValueId d = Binary("sub", x, Mean(x, axes));
    const ValueId variance = Mean(Unary("square", d), axes);
    return Binary("real_div", d, Unary("sqrt", Binary("add", variance, 1e-3F)));
  }

  std::vector<std::string> Recognized(ValueId output) {
    Output(output);
    result = Rewritten(program, RecognizeLayerNorm, 1e-5);
    return KeysOf(result);
  }

  Program result;
};

TEST(RecognizeLayerNorm, DividedByTheRoot) {
  for (const Axes& axes : {Axes{1}, Axes{-1}, Axes{3, 2}, Axes{1, 2, 3}}) {
    Network network;
    EXPECT_THAT(network.Recognized(network.Divided(axes)), ElementsAre("layer_norm"));
  }
}

TEST(RecognizeLayerNorm, MultipliedByTheInverseRoot) {
  Network network;
  const ValueId d = network.Binary("sub", network.x, network.Mean(network.x, {1}));
  const ValueId variance = network.Mean(network.Binary("mul", d, d), {1});
  const ValueId inverse = network.Call("rsqrt", {{"x", {variance}}, {"epsilon", {network.Scalar(1e-3F)}}});
  EXPECT_THAT(network.Recognized(network.Binary("mul", inverse, d)), ElementsAre("layer_norm"));
}

TEST(RecognizeLayerNorm, RootsAndSquaresAsPowers) {
  Network network;
  const ValueId d = network.Binary("sub", network.x, network.Mean(network.x, {1}));
  const ValueId variance = network.Mean(network.Binary("pow", d, 2.0F), {1});
  const ValueId root = network.Binary("pow", network.Binary("add", network.Scalar(1e-5F), variance), 0.5F);
  EXPECT_THAT(network.Recognized(network.Binary("real_div", d, root)), ElementsAre("layer_norm"));
  Network inverse;
  const ValueId e = inverse.Binary("sub", inverse.x, inverse.Mean(inverse.x, {1}));
  const ValueId sum = inverse.Binary("add", inverse.Mean(inverse.Unary("square", e), {1}), 1e-5F);
  EXPECT_THAT(inverse.Recognized(inverse.Binary("mul", e, inverse.Binary("pow", sum, -0.5F))),
              ElementsAre("layer_norm"));
}

TEST(RecognizeLayerNorm, DifferenceComputedTwiceAsInAGroupNorm) {
  Network network;
  const ValueId x =
      network.Call("reshape", {{"x", {network.x}}, {"shape", {network.Constant(Tensor::IntVector({2, 1, 3, 4, 5}))}}});
  const ValueId mean = network.Mean(x, {2, 3, 4});
  const ValueId square = network.Unary("square", network.Binary("sub", x, mean));
  const ValueId root = network.Unary("sqrt", network.Binary("add", network.Mean(square, {2, 3, 4}), 1e-5F));
  const ValueId normal = network.Binary("real_div", network.Binary("sub", x, mean), root);
  EXPECT_THAT(network.Recognized(normal), ElementsAre("reshape", "layer_norm"));
}

TEST(RecognizeLayerNorm, ScaleAndShiftBecomeItsParameters) {
  Network network;
  const ValueId gamma = network.Constant(Ramp({1, 3, 1, 1}, 1.0F));
  const ValueId beta = network.Constant(Ramp({3, 1, 1}, -1.0F));
  const ValueId scaled = network.Binary("mul", gamma, network.Divided({1}));
  EXPECT_THAT(network.Recognized(network.Binary("add", scaled, beta)), ElementsAre("layer_norm"));
  const Operation& norm = network.result.operations.at(0);
  const auto index = static_cast<std::size_t>(norm.definition->IndexOf("gamma"));
  EXPECT_EQ(network.result.at(norm.arguments.at(index).at(0)).type.shape, (Shape{3}));
}

TEST(RecognizeLayerNorm, ScaleOfTwoAxes) {
  Network network;
  const ValueId gamma = network.Constant(Ramp({4, 5}, 1.0F));
  EXPECT_THAT(network.Recognized(network.Binary("mul", network.Divided({2, 3}), gamma)), ElementsAre("layer_norm"));
}

TEST(RecognizeLayerNorm, ScaleAlongOtherAxesStays) {
  Network channels;
  EXPECT_THAT(channels.Recognized(channels.Binary("mul", channels.Divided({2, 3}), channels.Constant(Ramp({3, 1, 1})))),
              ElementsAre("layer_norm", "mul"));
  Network scalar;
  EXPECT_THAT(scalar.Recognized(scalar.Binary("mul", scalar.Divided({1}), 2.0F)), ElementsAre("layer_norm", "mul"));
}

TEST(RecognizeLayerNorm, NoScaleBehindTheShift) {
  Network network;
  const ValueId shifted = network.Binary("add", network.Divided({-1}), network.Constant(Ramp({5})));
  EXPECT_THAT(network.Recognized(network.Binary("mul", shifted, network.Constant(Ramp({5})))),
              ElementsAre("layer_norm", "mul"));
}

TEST(RecognizeLayerNorm, NotWhereThePartsServeSomethingElse) {
  Network mean;
  const ValueId average = mean.Mean(mean.x, {1});
  const ValueId d = mean.Binary("sub", mean.x, average);
  const ValueId root = mean.Unary("sqrt", mean.Binary("add", mean.Mean(mean.Unary("square", d), {1}), 1e-5F));
  mean.Output(average);
  EXPECT_THAT(mean.Recognized(mean.Binary("real_div", d, root)), SizeIs(7));
  Network difference;
  const ValueId e = difference.Binary("sub", difference.x, difference.Mean(difference.x, {1}));
  const ValueId square = difference.Mean(difference.Unary("square", e), {1});
  const ValueId divisor = difference.Unary("sqrt", difference.Binary("add", square, 1e-5F));
  const ValueId normal = difference.Binary("real_div", e, divisor);
  EXPECT_THAT(difference.Recognized(difference.Binary("add", normal, e)), SizeIs(8));
}

TEST(RecognizeLayerNorm, NotOverDifferentAxesOrValues) {
  Network axes;
  const ValueId d = axes.Binary("sub", axes.x, axes.Mean(axes.x, {1}));
  const ValueId root = axes.Unary("sqrt", axes.Binary("add", axes.Mean(axes.Unary("square", d), {2}), 1e-5F));
  EXPECT_THAT(axes.Recognized(axes.Binary("real_div", d, root)), SizeIs(7));
  Network values;
  const ValueId y = values.Input("y", {2, 3, 4, 5});
  const ValueId e = values.Binary("sub", values.x, values.Mean(y, {1}));
  const ValueId divisor =
      values.Unary("sqrt", values.Binary("add", values.Mean(values.Unary("square", e), {1}), 1e-5F));
  EXPECT_THAT(values.Recognized(values.Binary("real_div", e, divisor)), SizeIs(7));
}

}  // namespace
}  // namespace ulmora::engine::program
