#include "tests/engine/cpu/CpuTesting.h"

#include "engine/program/Interpret.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Specialize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using program::Operands;
using program::ProgramBuilder;
using program::ValueId;

std::uint32_t SeedOr(std::uint32_t seed) {
  const char* given = std::getenv("LUMVANE_TEST_SEED");
  return given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 10)) : seed;
}

Tensor Concatenated(const std::vector<Tensor>& tensors) {
  std::vector<float> all;
  for (const Tensor& tensor : tensors) {
    if (tensor.storage() == Storage::Bool) {
      for (const std::uint8_t flag : tensor.bools()) all.push_back(flag != 0 ? 1.0F : 0.0F);
    } else {
      all.insert(all.end(), tensor.floats().begin(), tensor.floats().end());
    }
  }
  Shape shape = {static_cast<std::int64_t>(all.size())};
  return Tensor::Floats(std::move(shape), std::move(all));
}

/// Takes the running operands apart out of one input.
class Unpacker {
 public:
  Unpacker(ProgramBuilder& builder, ValueId input) : builder_(builder), input_(input) {}

  ValueId Next(const Tensor& like) {
    const auto count = static_cast<std::int32_t>(like.count());
    const ValueId part =
        builder_.Call("slice_by_size", {{"x", {input_}}, {"begin", {Ints({offset_})}}, {"size", {Ints({count})}}});
    offset_ += count;
    const std::vector<std::int32_t> shape(like.shape().begin(), like.shape().end());
    const ValueId value = builder_.Call("reshape", {{"x", {part}}, {"shape", {Ints(shape)}}});
    if (like.storage() != Storage::Bool) return value;
    return builder_.Call("not_equal", {{"x", {value}}, {"y", {builder_.Constant(Tensor::Float(0.0F))}}},
                         {ElementType::Bool, like.shape(), true});
  }

 private:
  ValueId Ints(std::vector<std::int32_t> values) { return builder_.Constant(Tensor::IntVector(std::move(values))); }

  ProgramBuilder& builder_;
  ValueId input_;
  std::int32_t offset_ = 0;
};

/// Types of the results, by the operation's shape rule.
std::vector<TensorType> ResultTypes(const OpCase& opCase, const std::map<std::string, Operands>& arguments,
                                    const program::Program& program, const std::map<ValueId, TensorType>& types) {
  const program::OpDefinition& definition = *program::FindOp(opCase.key);
  std::vector<std::vector<program::OpCall::Operand>> operands;
  for (const program::Parameter& parameter : definition.parameters) {
    std::vector<program::OpCall::Operand>& row = operands.emplace_back();
    const auto given = arguments.find(std::string(parameter.name));
    if (given == arguments.end()) continue;
    for (const ValueId id : given->second) {
      const program::Value& value = program.at(id);
      row.push_back(value.constant ? program::OpCall::Operand{value.type, &*value.constant}
                                   : program::OpCall::Operand{types.at(id), nullptr});
    }
  }
  return definition.infer(program::OpCall(definition, opCase.key, opCase.opset, std::move(operands)));
}

}  // namespace

Random::Random(std::uint32_t seed) : seed_(SeedOr(seed)), engine_(seed_) {}

std::int64_t Random::Int(std::int64_t low, std::int64_t high) {
  return std::uniform_int_distribution<std::int64_t>(low, high)(engine_);
}

float Random::Float(float low, float high) {
  return std::uniform_real_distribution<float>(low, high)(engine_);
}

Tensor Random::Floats(const Shape& shape, float low, float high) {
  std::vector<float> data(static_cast<std::size_t>(ElementCount(shape)));
  for (float& value : data) value = Float(low, high);
  return Tensor::Floats(shape, std::move(data));
}

Tensor Ints(const std::vector<std::int64_t>& values) {
  return Tensor::IntVector({values.begin(), values.end()});
}

Shape RandomImage(Random& random, std::int64_t largest) {
  const auto rank = static_cast<std::size_t>(random.Pick<int>({3, 4, 4, 4, 5}));
  Shape shape = {random.Int(1, 2), random.Pick<std::int64_t>({1, 3, 16, 16, 20, 32})};
  while (shape.size() < rank) shape.push_back(random.Int(1, largest));
  return shape;
}

Shape RandomPicture(Random& random, std::int64_t largest) {
  const std::int64_t channels = random.Pick<std::int64_t>({1, 3, 16, 16, 20, 32});
  return {random.Int(1, 2), channels, random.Int(1, largest), random.Int(1, largest)};
}

CaseProgram ProgramOf(const OpCase& opCase) {
  ProgramBuilder builder(opCase.opset);
  std::vector<Tensor> all;
  for (const auto& [name, tensors] : opCase.running) all.insert(all.end(), tensors.begin(), tensors.end());
  Tensor input = Concatenated(all);
  Unpacker unpacker(builder, builder.Input("input", input.shape()));
  std::map<std::string, Operands> arguments;
  std::map<ValueId, TensorType> types;
  for (const auto& [name, tensors] : opCase.running) {
    for (const Tensor& tensor : tensors) {
      arguments[name].push_back(unpacker.Next(tensor));
      types.emplace(arguments[name].back(), tensor.type());
    }
  }
  for (const auto& [name, tensor] : opCase.constants) arguments[name] = {builder.Constant(tensor)};

  const std::vector<TensorType> results = ResultTypes(opCase, arguments, builder.program, types);
  const ValueId first = builder.Call(opCase.key, arguments, results.front(), opCase.key);
  program::Operation& operation = builder.program.operations.back();
  Operands flat;
  for (std::size_t i = 1; i < results.size(); ++i) {
    operation.results.push_back(builder.program.AddValue({opCase.key + std::to_string(i), results[i], {}}));
  }
  const Operands ids = operation.results;
  static_cast<void>(first);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    ValueId id = ids[i];
    if (StorageOf(results[i].element) != Storage::Float) {
      id = builder.Call("cast", {{"x", {id}}, {"dtype", {builder.Constant(Tensor::Text("fp32"))}}});
    }
    const auto count = static_cast<std::int32_t>(ElementCount(results[i].shape));
    flat.push_back(builder.Call("reshape", {{"x", {id}}, {"shape", {builder.Constant(Tensor::IntVector({count}))}}}));
  }
  const ValueId axis = builder.Constant(Tensor::Int(0));
  const ValueId interleave = builder.Constant(Tensor::Bool(false));
  builder.Output(flat.size() == 1
                     ? flat.front()
                     : builder.Call("concat", {{"values", flat}, {"axis", {axis}}, {"interleave", {interleave}}}));
  program::Program specialized = program::Specialize(builder.program, {input.shape()});
  return {std::move(specialized), std::move(input)};
}

std::vector<float> RunCompiled(const program::Program& program, const Tensor& input, const ExecutableOptions& options) {
  Executable executable(program, options);
  std::copy(input.floats().begin(), input.floats().end(), executable.input().begin());
  executable.Run();
  return {executable.output().begin(), executable.output().end()};
}

void ExpectClose(const std::vector<float>& actual, std::span<const float> expected, const Tolerance& tolerance,
                 const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t i = 0; i < actual.size(); ++i) {
    const auto a = static_cast<double>(actual[i]);
    const auto b = static_cast<double>(expected[i]);
    const bool sameSpecial = (std::isnan(a) && std::isnan(b)) || a == b;
    const bool close = std::abs(a - b) <= tolerance.absolute + tolerance.relative * std::abs(b);
    ASSERT_TRUE(sameSpecial || close) << what << ": element " << i << " of " << actual.size() << " is " << a
                                      << ", expected " << b;
  }
}

void ExpectSame(const program::Program& program, const Tensor& input, const Tolerance& tolerance) {
  const Tensor expected = program::Interpret(program, input);
  const std::map<LayoutPreference, std::string> preferences = {{LayoutPreference::Cheapest, "cheapest"},
                                                               {LayoutPreference::Plain, "plain"},
                                                               {LayoutPreference::ChannelsLast, "channels last"},
                                                               {LayoutPreference::Blocked, "blocked"}};
  for (const auto& [preference, name] : preferences) {
    ExecutableOptions options;
    options.layout = preference;
    ExpectClose(RunCompiled(program, input, options), expected.floats(), tolerance, "layout " + name);
  }
}

void ExpectSame(const OpCase& opCase, const Tolerance& tolerance) {
  std::string operands;
  for (const auto& [name, tensors] : opCase.running) {
    for (const Tensor& tensor : tensors) operands += " " + name + " " + ToString(tensor.shape());
  }
  for (const auto& [name, tensor] : opCase.constants) {
    operands += " " + name + " ";
    if (tensor.storage() == Storage::Int && tensor.count() <= 10) {
      for (const std::int32_t value : tensor.ints()) operands += std::to_string(value) + ",";
    } else if (tensor.storage() == Storage::String) {
      operands += tensor.strings().front();
    } else {
      operands += ToString(tensor.shape());
    }
  }
  SCOPED_TRACE(opCase.key + operands);
  const CaseProgram made = ProgramOf(opCase);
  ExpectSame(made.program, made.input, tolerance);
}

std::vector<std::string> DeclinedIn(const program::Program& program) {
  std::vector<std::string> declined;
  for (const std::string& step : Executable(program).StepNames()) {
    const std::size_t mark = step.rfind(": reference");
    if (mark != std::string::npos) declined.push_back(step.substr(0, step.find(' ')));
  }
  return declined;
}

}  // namespace ulmora::engine::cpu
