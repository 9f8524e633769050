#pragma once
// What the tests of the rewriting passes share: programs are specialized, rewritten, verified, and must compute what
// they computed before.

#include "engine/program/Interpret.h"
#include "engine/program/Print.h"
#include "engine/program/Specialize.h"
#include "engine/program/Verify.h"
#include "engine/program/passes/Pass.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace ulmora::engine::program {

/// Keys of the operations in order, with those of the fused steps: "conv+relu".
inline std::vector<std::string> KeysOf(const Program& program) {
  std::vector<std::string> keys;
  for (const Operation& operation : program.operations) {
    std::string& key = keys.emplace_back(operation.definition->key);
    for (const FusedStep& step : operation.fused) key += "+" + std::string(step.definition->key);
  }
  return keys;
}

/// The program for the shapes that its inputs have been given.
inline Program Specialized(const Program& program) {
  std::vector<Shape> shapes;
  for (const ValueId input : program.inputs) shapes.push_back(program.at(input).type.shape);
  return Specialize(program, shapes);
}

/// Values from -4 to 4 in an order without pattern, other ones for each input.
inline std::vector<Tensor> InputsFor(const Program& program) {
  std::vector<Tensor> inputs;
  for (const ValueId input : program.inputs) {
    const Shape& shape = program.at(input).type.shape;
    std::vector<float> values(static_cast<std::size_t>(ElementCount(shape)));
    for (std::size_t i = 0; i < values.size(); ++i) {
      const std::size_t scrambled = (i * 7919 + inputs.size() * 104729) % 1009;
      values[i] = static_cast<float>(scrambled) / 1009.0F * 8.0F - 4.0F;
    }
    inputs.push_back(Tensor::Floats(shape, std::move(values)));
  }
  return inputs;
}

/// Largest difference of the outputs of both programs, relative to 1 + their magnitude.
inline double Distance(const Program& before, const Program& after) {
  const std::vector<Tensor> inputs = InputsFor(before);
  const std::vector<Tensor> expected = Interpret(before, inputs);
  const std::vector<Tensor> found = Interpret(after, inputs);
  if (expected.size() != found.size()) return INFINITY;
  double distance = 0.0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i].type() != found[i].type()) return INFINITY;
    for (std::size_t e = 0; e < expected[i].floats().size(); ++e) {
      const double a = static_cast<double>(expected[i].floats()[e]);
      const double b = static_cast<double>(found[i].floats()[e]);
      distance = std::max(distance, std::abs(a - b) / (1.0 + std::abs(a)));
    }
  }
  return distance;
}

/// Runs the pass on the program and checks that the result is well formed and computes the same outputs.
inline Program Rewritten(const Program& program, void (*pass)(Program&), double tolerance = 1e-6) {
  const Program before = Specialized(program);
  Program after = before;
  pass(after);
  EXPECT_NO_THROW(VerifySpecialized(after)) << Print(after);
  EXPECT_LE(Distance(before, after), tolerance) << Print(before) << "became\n" << Print(after);
  return after;
}

/// Shorthand for programs of elementwise operations and convolutions.
struct NetworkBuilder : ProgramBuilder {
  using ProgramBuilder::ProgramBuilder;

  ValueId Scalar(float value) { return Constant(Tensor::Float(value)); }
  ValueId Unary(std::string_view key, ValueId x) { return Call(key, {{"x", {x}}}); }
  ValueId Binary(std::string_view key, ValueId x, ValueId y) { return Call(key, {{"x", {x}}, {"y", {y}}}); }
  ValueId Binary(std::string_view key, ValueId x, float y) { return Binary(key, x, Scalar(y)); }
  ValueId Cast(ValueId x, const char* dtype, ElementType type) {
    const ValueId name = Constant(Tensor::Text(dtype));
    return Call("cast", {{"x", {x}}, {"dtype", {name}}}, {type, {}, false});
  }

  /// A 1 x 1 convolution from `in` to `out` channels with weights around 1 / 8.
  ValueId Conv(ValueId x, std::int64_t in, std::int64_t out) {
    return Call("conv", {{"x", {x}}, {"weight", {Constant(Ramp({out, in, 1, 1}, -0.25F, 0.125F))}}});
  }

  ValueId Reduce(std::string_view key, ValueId x, std::vector<std::int32_t> axes, bool keepDims = true) {
    const ValueId list = Constant(Tensor::IntVector(std::move(axes)));
    const ValueId keep = Constant(Tensor::Bool(keepDims));
    return Call(key, {{"x", {x}}, {"axes", {list}}, {"keep_dims", {keep}}});
  }
};

}  // namespace ulmora::engine::program
