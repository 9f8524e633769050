#include "engine/Error.h"
#include "engine/program/OpCall.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

/// A definition with one parameter of each kind.
const OpDefinition kDefinition = {"sample",
                                  {{"x"},
                                   {"values", Presence::Variadic},
                                   {"maybe", Presence::Optional},
                                   {"axis", Presence::Optional, true, Tensor::Int(-1)}}};

const Tensor kTwo = Tensor::Int(2);

OpCall::Operand Known(const Tensor& tensor) {
  return {tensor.type(), &tensor};
}

/// A call with the given operand for `maybe`.
OpCall With(const Tensor& maybe) {
  return {kDefinition, "it", 6, {{Known(kTwo)}, {Known(kTwo)}, {Known(maybe)}, {}}};
}

template <typename Function>
std::string MessageOf(Function function) {
  try {
    function();
  } catch (const Error& error) {
    return error.what();
  }
  return "none";
}

TEST(OpCall, KnowsWhatIsGiven) {
  const OpCall call(kDefinition, "it", 6, {{{FloatType({2, 3}), nullptr}}, {Known(kTwo), Known(kTwo)}, {}, {}});
  EXPECT_TRUE(call.Has("x"));
  EXPECT_FALSE(call.Has("axis"));
  EXPECT_EQ(call.Count("values"), 2U);
  EXPECT_EQ(call.ShapeOf("x"), (Shape{2, 3}));
  EXPECT_FALSE(call.IsKnown("x"));
  EXPECT_TRUE(call.IsKnown("values", 1));
  EXPECT_FALSE(call.IsKnown("values", 2));
  EXPECT_FALSE(call.IsKnown("maybe"));
  EXPECT_TRUE(call.IsKnown("axis"));
  EXPECT_EQ(call.Int("axis"), -1);
  EXPECT_EQ(MessageOf([&] { static_cast<void>(call.Value("x")); }), "sample 'it': parameter 'x' must be a constant");
  EXPECT_EQ(MessageOf([&] { static_cast<void>(call.Value("maybe")); }), "sample 'it': parameter 'maybe' is missing");
  EXPECT_EQ(MessageOf([&] { static_cast<void>(call.Type("maybe")); }), "sample 'it': parameter 'maybe' is missing");
  EXPECT_THROW(static_cast<void>(call.Has("nonsense")), std::logic_error);
}

TEST(OpCall, ChecksPresence) {
  const auto make = [](std::vector<std::vector<OpCall::Operand>> operands) {
    return MessageOf([&] { OpCall(kDefinition, "it", 6, std::move(operands)); });
  };
  EXPECT_EQ(make({{}, {Known(kTwo)}, {}, {}}), "sample 'it': parameter 'x' is missing");
  EXPECT_EQ(make({{Known(kTwo)}, {}, {}, {}}), "sample 'it': parameter 'values' is missing");
  EXPECT_EQ(make({{Known(kTwo), Known(kTwo)}, {Known(kTwo)}, {}, {}}),
            "sample 'it': parameter 'x' has 2 operands, expected 1");
  EXPECT_THROW(make({{Known(kTwo)}}), std::logic_error);
}

TEST(OpCall, ReadsScalarsAndVectors) {
  const Tensor whole = Tensor::Float(3.0F);
  EXPECT_EQ(With(whole).Int("maybe"), 3);
  EXPECT_EQ(With(kTwo).Float("maybe"), 2.0F);
  EXPECT_TRUE(With(Tensor::Bool(true)).Bool("maybe"));
  EXPECT_EQ(With(Tensor::Text("valid")).Text("maybe"), "valid");
  EXPECT_EQ(With(Tensor::Ints({1, 1}, {5})).Int("maybe"), 5);
  EXPECT_THAT(With(Tensor::IntVector({1, -2})).Ints("maybe"), ElementsAre(1, -2));
  EXPECT_THAT(With(kTwo).Ints("maybe"), ElementsAre(2));
  EXPECT_THAT(With(Tensor::Bools({2}, {0, 1})).Bools("maybe"), ElementsAre(false, true));
}

TEST(OpCall, RefusesOtherKindsAndCounts) {
  const auto read = [](const Tensor& maybe, auto reader) {
    const OpCall call = With(maybe);
    return MessageOf([&] { static_cast<void>((call.*reader)("maybe")); });
  };
  EXPECT_EQ(read(Tensor::Float(2.5F), &OpCall::Int),
            "sample 'it': parameter 'maybe' is 2.500000, expected a whole number");
  EXPECT_EQ(read(Tensor::Float(1e30F), &OpCall::Int).find("sample 'it': parameter 'maybe' is 1"), 0U);
  EXPECT_EQ(read(Tensor::Text("1"), &OpCall::Int),
            "sample 'it': parameter 'maybe' is of type string, expected an integer");
  EXPECT_EQ(read(Tensor::Bool(true), &OpCall::Float),
            "sample 'it': parameter 'maybe' is of type bool, expected a number");
  EXPECT_EQ(read(kTwo, &OpCall::Bool), "sample 'it': parameter 'maybe' is of type int32, expected bool");
  EXPECT_EQ(read(kTwo, &OpCall::Text), "sample 'it': parameter 'maybe' is of type int32, expected string");
  EXPECT_EQ(read(Tensor::IntVector({1, 2}), &OpCall::Int),
            "sample 'it': parameter 'maybe' has shape [2], expected a single value");
  EXPECT_EQ(read(Tensor::Ints({1, 2}, {1, 2}), &OpCall::Ints),
            "sample 'it': parameter 'maybe' has shape [1, 2], expected a vector");
}

TEST(OpCall, CountsAxesFromTheFront) {
  const OpCall call = With(kTwo);
  EXPECT_EQ(call.Axis(-1, 4), 3);
  EXPECT_EQ(MessageOf([&] { static_cast<void>(call.Axis(4, 4)); }),
            "sample 'it': axis 4 is outside a tensor of rank 4");
}

TEST(OpCall, ReadsAProgramAndItsDeclarations) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {2});
  const ValueId alpha = builder.Constant(Tensor::Float(0.5F));
  builder.Call("leaky_relu", {{"x", {x}}, {"alpha", {alpha}}}, FloatType({2}), "known");
  builder.Call("leaky_relu", {{"x", {x}}, {"alpha", {alpha}}}, FloatType({kUnknownDim}), "open");
  const OpCall known(builder.program, builder.program.operations[0]);
  EXPECT_FALSE(known.IsKnown("x"));
  EXPECT_EQ(known.Float("alpha"), 0.5F);
  EXPECT_EQ(known.DeclaredShape(), Shape{2});
  EXPECT_FALSE(known.DeclaredShape(1));
  const OpCall open(builder.program, builder.program.operations[1]);
  EXPECT_FALSE(open.DeclaredShape());
}

}  // namespace
}  // namespace ulmora::engine::program
