// Activations, functions, arithmetic and logic of layers against their formulas.

#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace ulmora::engine::program::testing {
namespace {

using coreml::layers::Activation;
using coreml::layers::Layer;
using coreml::layers::Unary;

/// -1.12 to 1.18, nothing at the kinks.
const Tensor kX = Ramp({1, 2, 3, 4}, -1.12F, 0.1F);
/// Positive alone.
const Tensor kPositive = Ramp({1, 2, 3, 4}, 0.1F, 0.1F);

struct ActivationCase {
  const char* name;
  std::function<void(Activation&)> set;
  std::function<double(double)> formula;
};

void PrintTo(const ActivationCase& value, std::ostream* stream) {
  *stream << value.name;
}

class ActivationLayer : public ::testing::TestWithParam<ActivationCase> {};

TEST_P(ActivationLayer, FollowsItsFormula) {
  const Tensor y = RunLayer(kX, [](Layer& layer) { GetParam().set(*layer.mutable_activation()); });
  ExpectNear(y, kX.shape(), Mapped(kX, GetParam().formula));
}

template <typename Parameters>
void SetAlphaBeta(Parameters& parameters, float alpha, float beta) {
  parameters.set_alpha(alpha);
  parameters.set_beta(beta);
}

INSTANTIATE_TEST_SUITE_P(
    All, ActivationLayer,
    ::testing::Values(
        ActivationCase{"linear", [](Activation& a) { SetAlphaBeta(*a.mutable_linear(), 2.0F, 0.5F); },
                       [](double x) { return 2.0 * x + 0.5; }},
        ActivationCase{"relu", [](Activation& a) { a.mutable_relu(); }, [](double x) { return std::max(x, 0.0); }},
        ActivationCase{"leaky", [](Activation& a) { a.mutable_leakyrelu()->set_alpha(0.25F); },
                       [](double x) { return x >= 0 ? x : 0.25 * x; }},
        ActivationCase{"thresholded", [](Activation& a) { a.mutable_thresholdedrelu()->set_alpha(0.55F); },
                       [](double x) { return x >= 0.55 ? x : 0.0; }},
        ActivationCase{"prelu1", [](Activation& a) { SetWeights(*a.mutable_prelu()->mutable_alpha(), {0.125F}); },
                       [](double x) { return x >= 0 ? x : 0.125 * x; }},
        ActivationCase{"tanh", [](Activation& a) { a.mutable_tanh(); }, [](double x) { return std::tanh(x); }},
        ActivationCase{"scaled_tanh", [](Activation& a) { SetAlphaBeta(*a.mutable_scaledtanh(), 2.0F, 0.5F); },
                       [](double x) { return 2.0 * std::tanh(0.5 * x); }},
        ActivationCase{"sigmoid", [](Activation& a) { a.mutable_sigmoid(); },
                       [](double x) { return 1.0 / (1.0 + std::exp(-x)); }},
        ActivationCase{"hard", [](Activation& a) { SetAlphaBeta(*a.mutable_sigmoidhard(), 1.5F, 0.5F); },
                       [](double x) { return std::min(std::max(1.5 * x + 0.5, 0.0), 1.0); }},
        ActivationCase{"elu", [](Activation& a) { a.mutable_elu()->set_alpha(0.5F); },
                       [](double x) { return x >= 0 ? x : 0.5 * (std::exp(x) - 1.0); }},
        ActivationCase{"softsign", [](Activation& a) { a.mutable_softsign(); },
                       [](double x) { return x / (1.0 + std::abs(x)); }},
        ActivationCase{"softplus", [](Activation& a) { a.mutable_softplus(); },
                       [](double x) { return std::log(1.0 + std::exp(x)); }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(ActivationLayers, SlopesPerChannel) {
  const Tensor y = RunLayer(kX, [](Layer& layer) {
    SetWeights(*layer.mutable_activation()->mutable_prelu()->mutable_alpha(), {2.0F, 3.0F});
  });
  std::vector<float> expected;
  for (std::size_t i = 0; i < 24; ++i) {
    const float x = kX.floats()[i];
    expected.push_back(x >= 0 ? x : x * (i < 12 ? 2.0F : 3.0F));
  }
  ExpectNear(y, kX.shape(), expected);
}

TEST(ActivationLayers, SoftplusOfEachChannel) {
  const Tensor y = RunLayer(kX, [](Layer& layer) {
    auto& softplus = *layer.mutable_activation()->mutable_parametricsoftplus();
    SetWeights(*softplus.mutable_alpha(), {2.0F, 0.5F});
    SetWeights(*softplus.mutable_beta(), {3.0F});
  });
  std::vector<float> expected;
  for (std::size_t i = 0; i < 24; ++i) {
    const double alpha = i < 12 ? 2.0 : 0.5;
    expected.push_back(static_cast<float>(alpha * std::log(1.0 + std::exp(3.0 * kX.floats()[i]))));
  }
  ExpectNear(y, kX.shape(), expected);
}

TEST(ActivationLayers, ClampedReluAndGelu) {
  const Tensor clamped = RunLayer(kX, [](Layer& layer) { SetAlphaBeta(*layer.mutable_clampedrelu(), 0.5F, 0.75F); });
  ExpectNear(clamped, kX.shape(), Mapped(kX, [](double x) { return std::min(x >= 0 ? x : 0.5 * x, 0.75); }));
  const Tensor gelu = RunLayer(kX, [](Layer& layer) { layer.mutable_gelu(); });
  ExpectNear(gelu, kX.shape(), Mapped(kX, [](double x) { return 0.5 * x * (1.0 + std::erf(x / std::sqrt(2.0))); }));
}

TEST(ActivationLayers, UnknownKindIsRefused) {
  EXPECT_THAT(RefusalOfLayer(kX, [](Layer& layer) { layer.mutable_activation(); }),
              ::testing::HasSubstr("activation layer 'tested': is of an unknown kind of activation"));
}

Tensor RunUnary(
    const Tensor& x, Unary::Operation type, const std::function<void(Unary&)>& set = [](Unary&) {}) {
  return RunLayer(x, [&](Layer& layer) {
    layer.mutable_unary()->set_type(type);
    set(*layer.mutable_unary());
  });
}

TEST(UnaryLayer, FunctionsOfScaledAndShiftedInput) {
  const Shape shape = kPositive.shape();
  const auto expect = [&](const Tensor& y, const std::function<double(double)>& formula) {
    ExpectNear(y, shape, Mapped(kPositive, formula));
  };
  expect(RunUnary(kPositive, Unary::SQRT), [](double x) { return std::sqrt(x); });
  expect(RunUnary(kPositive, Unary::RSQRT), [](double x) { return 1.0 / std::sqrt(x + 1e-6); });
  expect(RunUnary(kPositive, Unary::INVERSE, [](Unary& unary) { unary.set_epsilon(0.5F); }),
         [](double x) { return 1.0 / (x + 0.5); });
  expect(RunUnary(kPositive, Unary::POWER, [](Unary& unary) { unary.set_alpha(3.0F); }),
         [](double x) { return x * x * x; });
  expect(RunUnary(kPositive, Unary::EXP, [](Unary& unary) { unary.set_scale(2.0F); }),
         [](double x) { return std::exp(2.0 * x); });
  expect(RunUnary(kPositive, Unary::LOG, [](Unary& unary) { unary.set_shift(1.0F); }),
         [](double x) { return std::log(x + 1.0); });
  expect(RunUnary(kPositive, Unary::ABS,
                  [](Unary& unary) {
                    unary.set_scale(-2.0F);
                    unary.set_shift(1.0F);
                  }),
         [](double x) { return std::abs(1.0 - 2.0 * x); });
  expect(RunUnary(kPositive, Unary::THRESHOLD, [](Unary& unary) { unary.set_alpha(1.05F); }),
         [](double x) { return std::max(x, 1.05); });
}

TEST(FunctionLayers, OfOneInput) {
  const auto expect = [](const Configure& set, const std::function<double(double)>& formula) {
    ExpectNear(RunLayer(kX, set), kX.shape(), Mapped(kX, formula));
  };
  expect([](Layer& l) { l.mutable_ceil(); }, [](double x) { return std::ceil(x); });
  expect([](Layer& l) { l.mutable_floor(); }, [](double x) { return std::floor(x); });
  expect([](Layer& l) { l.mutable_sign(); }, [](double x) { return x > 0 ? 1.0 : -1.0; });
  expect([](Layer& l) { l.mutable_round(); }, [](double x) { return std::nearbyint(x); });
  expect([](Layer& l) { l.mutable_exp2(); }, [](double x) { return std::exp2(x); });
  expect([](Layer& l) { l.mutable_sin(); }, [](double x) { return std::sin(x); });
  expect([](Layer& l) { l.mutable_cos(); }, [](double x) { return std::cos(x); });
  expect([](Layer& l) { l.mutable_tan(); }, [](double x) { return std::tan(x); });
  expect([](Layer& l) { l.mutable_tanh(); }, [](double x) { return std::tanh(x); });
  expect([](Layer& l) { l.mutable_atan(); }, [](double x) { return std::atan(x); });
  expect([](Layer& l) { l.mutable_asinh(); }, [](double x) { return std::asinh(x); });
  expect([](Layer& l) { l.mutable_erf(); }, [](double x) { return std::erf(x); });
  expect([](Layer& l) { l.mutable_copy(); }, [](double x) { return x; });
  const Tensor aboveOne = Tensor::Floats({3}, {1.0F, 1.5F, 20.0F});
  ExpectNear(RunLayer(aboveOne, [](Layer& l) { l.mutable_acosh(); }), {3},
             Mapped(aboveOne, [](double x) { return std::acosh(x); }));
  const auto clip = [](Layer& l) {
    l.mutable_clip()->set_minval(-0.35F);
    l.mutable_clip()->set_maxval(0.65F);
  };
  expect(clip, [](double x) { return std::min(std::max(x, -0.35), 0.65); });
}

TEST(FunctionLayers, ClipToOneNumber) {
  const auto clip = [](Layer& layer) { layer.mutable_clip(); };
  ExpectNear(RunLayer(kX, clip), kX.shape(), std::vector<float>(24, 0.0F));
}

const Tensor kPerChannel = Tensor::Floats({1, 2, 1, 1}, {2.0F, -3.0F});

std::vector<float> WithChannel(const std::function<double(double, double)>& function) {
  std::vector<float> values;
  for (std::size_t i = 0; i < 24; ++i) {
    values.push_back(static_cast<float>(function(kX.floats()[i], i < 12 ? 2.0 : -3.0)));
  }
  return values;
}

TEST(ArithmeticLayers, SeveralInputs) {
  const auto expect = [](const Configure& set, const std::function<double(double, double)>& formula) {
    ExpectNear(RunLayer(kX, set, {kPerChannel}), kX.shape(), WithChannel(formula));
  };
  expect([](Layer& l) { l.mutable_add(); }, [](double x, double b) { return x + b; });
  expect([](Layer& l) { l.mutable_multiply(); }, [](double x, double b) { return x * b; });
  expect([](Layer& l) { l.mutable_average(); }, [](double x, double b) { return (x + b) / 2.0; });
  expect([](Layer& l) { l.mutable_max(); }, [](double x, double b) { return std::max(x, b); });
  expect([](Layer& l) { l.mutable_min(); }, [](double x, double b) { return std::min(x, b); });
  expect([](Layer& l) { l.mutable_addbroadcastable(); }, [](double x, double b) { return x + b; });
  expect([](Layer& l) { l.mutable_subtractbroadcastable(); }, [](double x, double b) { return x - b; });
  expect([](Layer& l) { l.mutable_multiplybroadcastable(); }, [](double x, double b) { return x * b; });
  expect([](Layer& l) { l.mutable_dividebroadcastable(); }, [](double x, double b) { return x / b; });
  expect([](Layer& l) { l.mutable_floordivbroadcastable(); }, [](double x, double b) { return std::floor(x / b); });
  expect([](Layer& l) { l.mutable_modbroadcastable(); }, [](double x, double b) { return x - std::floor(x / b) * b; });
  expect([](Layer& l) { l.mutable_maxbroadcastable(); }, [](double x, double b) { return std::max(x, b); });
  expect([](Layer& l) { l.mutable_minbroadcastable(); }, [](double x, double b) { return std::min(x, b); });
}

TEST(ArithmeticLayers, ThreeInputs) {
  const Tensor c = Tensor::Floats({1, 1, 1, 1}, {10.0F});
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_average(); }, {kPerChannel, c}), kX.shape(),
             WithChannel([](double x, double b) { return (x + b + 10.0) / 3.0; }));
}

TEST(ArithmeticLayers, OneInputAndAlpha) {
  const Tensor sum = RunLayer(kX, [](Layer& layer) { layer.mutable_add()->set_alpha(2.5F); });
  ExpectNear(sum, kX.shape(), Mapped(kX, [](double x) { return x + 2.5; }));
  const Tensor product = RunLayer(kX, [](Layer& layer) { layer.mutable_multiply()->set_alpha(-2.0F); });
  ExpectNear(product, kX.shape(), Mapped(kX, [](double x) { return -2.0 * x; }));
}

TEST(ArithmeticLayers, ScaleAndBiasOfEachShape) {
  const Tensor scaled = RunLayer(kX, [](Layer& layer) {
    auto& scale = *layer.mutable_scale();
    scale.add_shapescale(2);
    SetWeights(*scale.mutable_scale(), {2.0F, -3.0F});
    scale.set_hasbias(true);
    scale.add_shapebias(1);
    SetWeights(*scale.mutable_bias(), {0.5F});
  });
  ExpectNear(scaled, kX.shape(), WithChannel([](double x, double b) { return x * b + 0.5; }));
  std::vector<float> plane(12);
  for (std::size_t i = 0; i < 12; ++i) plane[i] = static_cast<float>(i);
  const Tensor shifted = RunLayer(kX, [&](Layer& layer) {
    for (const std::uint64_t size : {1U, 3U, 4U}) layer.mutable_bias()->add_shape(size);
    SetWeights(*layer.mutable_bias()->mutable_bias(), plane);
  });
  std::vector<float> expected;
  for (std::size_t i = 0; i < 24; ++i) expected.push_back(kX.floats()[i] + static_cast<float>(i % 12));
  ExpectNear(shifted, kX.shape(), expected);
}

TEST(ArithmeticLayers, DotProductsOverChannels) {
  const Tensor x = Tensor::Floats({1, 2, 1, 2}, {3.0F, 1.0F, 4.0F, 2.0F});
  const Tensor b = Tensor::Floats({1, 2, 1, 2}, {1.0F, 5.0F, 2.0F, 0.0F});
  ExpectNear(RunLayer(x, [](Layer& l) { l.mutable_dot(); }, {b}), {1, 1, 1, 2}, {11.0F, 5.0F});
  const Tensor cosine = RunLayer(x, [](Layer& l) { l.mutable_dot()->set_cosinesimilarity(true); }, {b});
  ExpectNear(cosine, {1, 1, 1, 2}, {11.0F / (5.0F * std::sqrt(5.0F)), 1.0F / std::sqrt(5.0F)});
}

TEST(LogicLayers, ComparisonsWithAlpha) {
  const Tensor x = Tensor::Floats({4}, {-1.0F, 0.0F, 0.5F, 2.0F});
  const auto expect = [&](const Configure& set, const std::vector<float>& expected) {
    ExpectNear(RunLayer(x, set), {4}, expected);
  };
  expect([](Layer& l) { l.mutable_equal()->set_alpha(0.5F); }, {0, 0, 1, 0});
  expect([](Layer& l) { l.mutable_notequal()->set_alpha(0.5F); }, {1, 1, 0, 1});
  expect([](Layer& l) { l.mutable_lessthan()->set_alpha(0.5F); }, {1, 1, 0, 0});
  expect([](Layer& l) { l.mutable_lessequal()->set_alpha(0.5F); }, {1, 1, 1, 0});
  expect([](Layer& l) { l.mutable_greaterthan()->set_alpha(0.5F); }, {0, 0, 0, 1});
  expect([](Layer& l) { l.mutable_greaterequal()->set_alpha(0.5F); }, {0, 0, 1, 1});
  expect([](Layer& l) { l.mutable_logicalnot(); }, {0, 1, 0, 0});
}

TEST(LogicLayers, TwoAndThreeInputs) {
  const Tensor x = Tensor::Floats({4}, {0.0F, 0.0F, 1.0F, 2.0F});
  const Tensor b = Tensor::Floats({4}, {0.0F, 3.0F, 0.0F, 1.0F});
  const Tensor c = Tensor::Floats({1}, {-1.0F});
  const auto expect = [&](const Configure& set, const std::vector<float>& expected) {
    ExpectNear(RunLayer(x, set, {b}), {4}, expected);
  };
  expect([](Layer& l) { l.mutable_lessthan(); }, {0, 1, 0, 0});
  expect([](Layer& l) { l.mutable_logicaland(); }, {0, 0, 0, 1});
  expect([](Layer& l) { l.mutable_logicalor(); }, {0, 1, 1, 1});
  expect([](Layer& l) { l.mutable_logicalxor(); }, {0, 1, 1, 0});
  ExpectNear(RunLayer(x, [](Layer& l) { l.mutable_wherebroadcastable(); }, {b, c}), {4}, {-1, -1, 0, 1});
}

}  // namespace
}  // namespace ulmora::engine::program::testing
