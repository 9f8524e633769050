#include "engine/program/passes/AttachPostOps.h"
#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

struct Network : NetworkBuilder {
  ValueId x = Input("x", {1, 2, 3, 3});

  ValueId Conv() { return NetworkBuilder::Conv(x, 2, 2); }

  std::vector<std::string> Attached(ValueId output) {
    Output(output);
    return KeysOf(Rewritten(program, AttachPostOps));
  }
};

TEST(AttachPostOps, ActivationsOnEveryProducer) {
  Network conv;
  EXPECT_THAT(conv.Attached(conv.Unary("relu", conv.Conv())), ElementsAre("conv+relu"));
  Network transposed;
  const ValueId weight = transposed.Constant(Ramp({2, 2, 2, 2}, -1.0F, 0.1F));
  const ValueId up = transposed.Call("conv_transpose", {{"x", {transposed.x}}, {"weight", {weight}}});
  EXPECT_THAT(transposed.Attached(transposed.Unary("gelu", up)), ElementsAre("conv_transpose+gelu"));
  Network linear;
  const ValueId product = linear.Call("linear", {{"x", {linear.x}}, {"weight", {linear.Constant(Ramp({4, 3}))}}});
  EXPECT_THAT(linear.Attached(linear.Unary("silu", product)), ElementsAre("linear+silu"));
  Network matmul;
  const ValueId square = matmul.Binary("matmul", matmul.x, matmul.x);
  EXPECT_THAT(matmul.Attached(matmul.Unary("tanh", square)), ElementsAre("matmul+tanh"));
}

TEST(AttachPostOps, EveryActivationOfTheTable) {
  const std::map<std::string, std::vector<std::pair<std::string, float>>> parameters = {
      {"leaky_relu", {{"alpha", 0.1F}}},
      {"elu", {{"alpha", 0.5F}}},
      {"sigmoid_hard", {{"alpha", 0.2F}, {"beta", 0.5F}}},
      {"hard_swish", {{"alpha", 0.2F}, {"beta", 0.5F}}},
      {"clip", {{"alpha", -0.5F}, {"beta", 0.5F}}},
      {"linear_activation", {{"alpha", 2.0F}, {"beta", 1.0F}}}};
  int count = 0;
  for (const OpDefinition& definition : AllOps()) {
    if (StepKindOf(definition.key) != StepKind::Activation) continue;
    ++count;
    Network network;
    std::map<std::string, Operands> arguments = {{"x", {network.Conv()}}};
    const auto given = parameters.find(std::string(definition.key));
    if (given != parameters.end()) {
      for (const auto& [name, value] : given->second) arguments[name] = {network.Scalar(value)};
    }
    EXPECT_THAT(network.Attached(network.Call(definition.key, arguments)),
                ElementsAre("conv+" + std::string(definition.key)));
  }
  EXPECT_EQ(count, 15);
}

TEST(AttachPostOps, PreluOnConvolutionsAlone) {
  const auto prelu = [](NetworkBuilder& builder, ValueId value) {
    return builder.Call("prelu", {{"x", {value}}, {"alpha", {builder.Constant(Ramp({2}, 0.1F))}}});
  };
  Network conv;
  EXPECT_THAT(conv.Attached(prelu(conv, conv.Conv())), ElementsAre("conv+prelu"));
  Network matmul;
  EXPECT_THAT(matmul.Attached(prelu(matmul, matmul.Binary("matmul", matmul.x, matmul.x))),
              ElementsAre("matmul", "prelu"));
}

TEST(AttachPostOps, ResidualAdditionOnEitherSide) {
  Network first;
  EXPECT_THAT(first.Attached(first.Binary("add", first.Conv(), first.x)), ElementsAre("conv+add"));
  Network second;
  EXPECT_THAT(second.Attached(second.Binary("add", second.x, second.Conv())), ElementsAre("conv+add"));
}

TEST(AttachPostOps, DifferencesOnEitherSideQuotientsOnTheLeftAlone) {
  Network left;
  EXPECT_THAT(left.Attached(left.Binary("sub", left.Conv(), left.x)), ElementsAre("conv+sub"));
  Network right;
  EXPECT_THAT(right.Attached(right.Binary("sub", right.x, right.Conv())), ElementsAre("conv+linear_activation+add"));
  Network divisor;
  EXPECT_THAT(divisor.Attached(divisor.Binary("real_div", divisor.Scalar(1.0F), divisor.Conv())),
              ElementsAre("conv", "real_div"));
}

TEST(AttachPostOps, OfTwoProducersTheLaterCarriesTheSum) {
  Network network;
  const ValueId first = network.Conv();
  const ValueId second = network.Conv();
  const ValueId sum = network.Binary("add", first, second);
  EXPECT_THAT(network.Attached(network.Unary("relu", sum)), ElementsAre("conv", "conv+add+relu"));
}

TEST(AttachPostOps, ProducerMovesBehindTheOtherOperand) {
  Network network;
  const ValueId conv = network.Conv();
  const ValueId other = network.Unary("exp", network.x);
  const ValueId third = network.Unary("relu", other);
  const ValueId sum = network.Binary("add", conv, third);
  EXPECT_THAT(network.Attached(network.Unary("tanh", sum)), ElementsAre("exp", "relu", "conv+add+tanh"));
}

TEST(AttachPostOps, ConstantsForOneChannelEach) {
  Network scalar;
  EXPECT_THAT(scalar.Attached(scalar.Binary("mul", scalar.Conv(), 2.0F)), ElementsAre("conv+mul"));
  Network channels;
  EXPECT_THAT(channels.Attached(channels.Binary("maximum", channels.Conv(), channels.Constant(Ramp({2, 1, 1})))),
              ElementsAre("conv+maximum"));
  Network rows;
  EXPECT_THAT(rows.Attached(rows.Binary("mul", rows.Conv(), rows.Constant(Ramp({3, 1})))), ElementsAre("conv", "mul"));
  Network last;
  const ValueId product = last.Call("linear", {{"x", {last.x}}, {"weight", {last.Constant(Ramp({4, 3}))}}});
  EXPECT_THAT(last.Attached(last.Binary("add", product, last.Constant(Ramp({4})))), ElementsAre("linear+add"));
}

TEST(AttachPostOps, TellsTheKindsOfOperandsApart) {
  Network network;
  const ValueId conv = network.Conv();
  network.Output(conv);
  const ValueId scalar = network.Constant(Ramp({1, 1, 1, 1}));
  const ValueId channel = network.Constant(Ramp({1, 2, 1, 1}));
  const ValueId whole = network.Constant(Ramp({1, 2, 3, 3}));
  const ValueId row = network.Constant(Ramp({3}));
  const ValueId ints = network.Constant(Tensor::Int(1));
  const Program program = Specialized(network.program);
  const Operation& producer = program.operations.at(0);
  EXPECT_EQ(StepOperandOf(program, producer, scalar), StepOperand::Scalar);
  EXPECT_EQ(StepOperandOf(program, producer, channel), StepOperand::Channel);
  EXPECT_EQ(StepOperandOf(program, producer, whole), StepOperand::Tensor);
  EXPECT_EQ(StepOperandOf(program, producer, network.x), StepOperand::Tensor);
  EXPECT_EQ(StepOperandOf(program, producer, row), std::nullopt);
  EXPECT_EQ(StepOperandOf(program, producer, ints), std::nullopt);
}

TEST(AttachPostOps, NotWhereTheResultServesSomethingElse) {
  Network second;
  const ValueId conv = second.Conv();
  const ValueId relu = second.Unary("relu", conv);
  EXPECT_THAT(second.Attached(second.Unary("exp", second.Binary("add", relu, conv))),
              ElementsAre("conv", "relu", "add", "exp"));
  Network output;
  const ValueId visible = output.Conv();
  output.Output(visible);
  EXPECT_THAT(output.Attached(output.Unary("relu", visible)), ElementsAre("conv", "relu"));
  Network itself;
  const ValueId twice = itself.Conv();
  EXPECT_THAT(itself.Attached(itself.Binary("mul", twice, twice)), ElementsAre("conv", "mul"));
}

TEST(AttachPostOps, NotWhereTheOtherOperandBroadcasts) {
  Network computed;
  const ValueId mean = computed.Reduce("reduce_mean", computed.x, {2, 3});
  EXPECT_THAT(computed.Attached(computed.Binary("mul", computed.Conv(), mean)),
              ElementsAre("reduce_mean", "conv", "mul"));
  Network widening;
  const ValueId many = widening.Input("many", {4, 2, 3, 3});
  EXPECT_THAT(widening.Attached(widening.Binary("add", widening.Conv(), many)), ElementsAre("conv", "add"));
}

TEST(AttachPostOps, NotOnOtherOperations) {
  Network network;
  EXPECT_THAT(network.Attached(network.Unary("relu", network.Unary("exp", network.x))), ElementsAre("exp", "relu"));
}

TEST(AttachPostOps, NotWhatIsNotInTheTable) {
  Network network;
  EXPECT_THAT(network.Attached(network.Unary("softmax", network.Conv())), ElementsAre("conv", "softmax"));
}

TEST(AttachPostOps, NotMoreStepsThanAllowed) {
  Network network;
  ValueId value = network.Conv();
  for (std::size_t i = 0; i < kMaxFusedSteps + 1; ++i) value = network.Unary("abs", value);
  EXPECT_THAT(network.Attached(value), ElementsAre("conv+abs+abs+abs+abs", "abs"));
}

TEST(AttachPostOps, AReversedDifferenceNeedsRoomForTwoSteps) {
  Network network;
  ValueId value = network.Conv();
  for (std::size_t i = 0; i < kMaxFusedSteps - 1; ++i) value = network.Unary("abs", value);
  EXPECT_THAT(network.Attached(network.Binary("sub", network.x, value)), ElementsAre("conv+abs+abs+abs", "sub"));
}

}  // namespace
}  // namespace ulmora::engine::program
