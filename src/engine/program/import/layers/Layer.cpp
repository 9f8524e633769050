#include "engine/program/import/layers/Layer.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace ulmora::engine::program::layers {
namespace {

std::string Quoted(std::string_view name) {
  return "'" + std::string(name) + "'";
}

bool IsAmong(std::string_view key, std::initializer_list<std::string_view> keys) {
  return std::ranges::find(keys, key) != keys.end();
}

/// What a result of an operation holds: what its first operand does, but for those that ask or count.
ElementType ElementOfResult(const Program& program, const Operation& operation, std::size_t result) {
  const std::string_view key = operation.definition->key;
  if (IsAmong(key, {"equal", "not_equal", "less", "less_equal", "greater", "greater_equal", "logical_and", "logical_or",
                    "logical_xor", "logical_not"})) {
    return ElementType::Bool;
  }
  if (IsAmong(key, {"shape", "reduce_argmax", "reduce_argmin", "argsort"})) return ElementType::Int32;
  if (IsAmong(key, {"fill", "fill_like", "one_hot"})) return ElementType::Float32;
  if (key == "topk" && result == 1) return ElementType::Int32;
  const auto operand = [&](std::string_view parameter) -> const Value& {
    const auto index = static_cast<std::size_t>(operation.definition->IndexOf(parameter));
    return program.at(operation.arguments.at(index).front());
  };
  if (key == "cast") {
    const bool isInt = operand("dtype").constant->strings().front() == "int32";
    return isInt ? ElementType::Int32 : ElementType::Float32;
  }
  const std::string_view first = key == "select" ? "a" : operation.definition->parameters.front().name;
  return operand(first).type.element;
}

}  // namespace

void Layer::Fail(const std::string& message) const {
  throw Error(Stage::Translate, source_.kind + " layer " + Quoted(source_.name) + ": " + message);
}

const Tensor& Layer::Find(std::string_view parameter) const {
  const auto found = source_.parameters.find(std::string(parameter));
  if (found == source_.parameters.end()) {
    throw std::logic_error("layers of kind " + source_.kind + " have no parameter " + std::string(parameter));
  }
  return found->second;
}

bool Layer::Has(std::string_view parameter) const {
  return source_.parameters.contains(std::string(parameter));
}

const Tensor& Layer::Weights(std::string_view parameter) const {
  if (!Has(parameter)) Fail("lacks " + std::string(parameter));
  return Find(parameter);
}

std::int64_t Layer::Int(std::string_view parameter) const {
  return Find(parameter).ints().front();
}

float Layer::Float(std::string_view parameter) const {
  return Find(parameter).floats().front();
}

float Layer::FloatOr(std::string_view parameter, float whatZeroMeans) const {
  const float value = Float(parameter);
  return value == 0.0F ? whatZeroMeans : value;
}

bool Layer::Bool(std::string_view parameter) const {
  return Find(parameter).bools().front() != 0;
}

const std::string& Layer::Text(std::string_view parameter) const {
  return Find(parameter).strings().front();
}

std::vector<std::int32_t> Layer::Ints(std::string_view parameter) const {
  const std::span<const std::int32_t> ints = Find(parameter).ints();
  return {ints.begin(), ints.end()};
}

std::vector<bool> Layer::Bools(std::string_view parameter) const {
  const std::span<const std::uint8_t> bools = Find(parameter).bools();
  return {bools.begin(), bools.end()};
}

std::vector<std::int32_t> Layer::Pair(std::string_view parameter, std::int32_t fallback) const {
  std::vector<std::int32_t> sizes = Ints(parameter);
  if (sizes.empty()) return {fallback, fallback};
  if (sizes.size() != 2) {
    Fail(std::string(parameter) + " has " + std::to_string(sizes.size()) + " entries, expected 2");
  }
  return sizes;
}

std::vector<std::int32_t> Layer::Borders(std::string_view parameter) const {
  if (!Has(parameter) || Find(parameter).count() == 0) return {0, 0, 0, 0};
  std::vector<std::int32_t> amounts = Ints(parameter);
  if (amounts.size() != 4) {
    Fail(std::string(parameter) + " has " + std::to_string(amounts.size() / 2) + " borders, expected 2");
  }
  return amounts;
}

void Layer::Require(std::size_t least, std::size_t most, std::size_t outputs) const {
  if (InputCount() < least || InputCount() > most) {
    Fail("has " + std::to_string(InputCount()) + " inputs, expected " + std::to_string(least) +
         (most > least ? " or more" : ""));
  }
  if (OutputCount() != outputs) {
    Fail("has " + std::to_string(OutputCount()) + " outputs, expected " + std::to_string(outputs));
  }
}

Blob Layer::Input(std::size_t index) const {
  const std::string& name = source_.inputs.at(index);
  const auto found = blobs_.find(name);
  if (found == blobs_.end()) Fail("takes " + Quoted(name) + ", which is not defined before it");
  return found->second;
}

Blob Layer::Full(const Blob& blob) {
  if (!blob.withoutSequence) return blob;
  return {Emit("expand_dims", {{"x", blob}, {"axes", Tensor::IntVector({0})}}), blob.rank + 1};
}

void Layer::RequireRank(const Blob& blob, std::size_t least) const {
  if (blob.rank >= least) return;
  Fail("has an input of rank " + std::to_string(blob.LogicalRank()) + ", expected " + std::to_string(least) +
       " or more");
}

ValueId Layer::Planes(const Blob& blob) {
  RequireRank(blob, 3);
  if (blob.rank == 4) return blob.value;
  if (blob.rank == 3) return Emit("expand_dims", {{"x", blob}, {"axes", Tensor::IntVector({0})}});
  const ValueId shape = JoinedSizes({Constant(Tensor::IntVector({-1})), Sizes(blob.value, blob.rank - 3, blob.rank)});
  return Emit("reshape", {{"x", blob}, {"shape", shape}});
}

Blob Layer::FromPlanes(const Blob& like, ValueId planes) {
  Blob result = like;
  result.value = planes;
  if (like.rank == 3) {
    result.value = Emit("squeeze", {{"x", planes}, {"axes", Tensor::IntVector({0})}});
  } else if (like.rank > 4) {
    const ValueId shape = JoinedSizes({Sizes(like.value, 0, like.rank - 3), Sizes(planes, 1, 4)});
    result.value = Emit("reshape", {{"x", planes}, {"shape", shape}});
  }
  return result;
}

std::size_t Layer::DeclaredRank() const {
  if (source_.outputRanks.empty() || source_.outputRanks.front() < 1 ||
      source_.outputRanks.front() > limits::kMaxRank) {
    Fail("does not say which rank its output has");
  }
  return static_cast<std::size_t>(source_.outputRanks.front());
}

const Tensor* Layer::KnownValue(const Blob& blob) const {
  const std::optional<Tensor>& constant = program_.at(blob.value).constant;
  return constant ? &*constant : nullptr;
}

std::int64_t Layer::KnownLastDim(const Blob& blob) const {
  const TensorType& type = program_.at(blob.value).type;
  return type.rankKnown && !type.shape.empty() ? type.shape.back() : kUnknownDim;
}

ValueId Layer::AddValue(Value value) {
  if (std::cmp_greater_equal(program_.values.size(), limits::kMaxValues)) {
    Fail("is beyond the limit of " + std::to_string(limits::kMaxValues) + " values");
  }
  return program_.AddValue(std::move(value));
}

ValueId Layer::Constant(Tensor tensor) {
  TensorType type = tensor.type();
  return AddValue({source_.name, std::move(type), std::move(tensor)});
}

ValueId Layer::Emit(std::string_view operation, Arguments arguments) {
  return EmitSeveral(operation, std::move(arguments), 1).front();
}

std::vector<ValueId> Layer::EmitSeveral(std::string_view key, Arguments arguments, std::size_t results) {
  Operation operation;
  operation.definition = FindOp(key);
  if (operation.definition == nullptr) throw std::logic_error("there is no operation " + std::string(key));
  operation.name = source_.name;
  operation.arguments.resize(operation.definition->parameters.size());
  for (auto& [parameter, argument] : arguments) {
    const auto index = static_cast<std::size_t>(operation.definition->IndexOf(parameter));
    const auto* constant = std::get_if<Tensor>(&argument.operand());
    operation.arguments.at(index) =
        constant != nullptr ? Operands{Constant(*constant)} : std::get<Operands>(argument.operand());
  }
  for (std::size_t i = 0; i < results; ++i) {
    operation.results.push_back(AddValue({source_.name, {ElementOfResult(program_, operation, i), {}, false}, {}}));
  }
  program_.operations.push_back(operation);
  return operation.results;
}

ValueId Layer::Whole(const Blob& blob) {
  return Emit("cast", {{"x", blob}, {"dtype", "int32"}});
}

ValueId Layer::WholeScalar(const Blob& blob) {
  return Emit("squeeze", {{"x", Whole(blob)}});
}

ValueId Layer::AsFloats(ValueId value) {
  return Emit("cast", {{"x", value}, {"dtype", "fp32"}});
}

ValueId Layer::Sizes(ValueId value, std::size_t begin, std::size_t end) {
  return Emit("slice_by_index", {{"x", Emit("shape", {{"x", value}})},
                                 {"begin", Tensor::IntVector({static_cast<std::int32_t>(begin)})},
                                 {"end", Tensor::IntVector({static_cast<std::int32_t>(end)})}});
}

ValueId Layer::JoinedSizes(Operands vectors) {
  return Emit("concat", {{"values", std::move(vectors)}, {"axis", Axis(0)}});
}

void Layer::SetOutput(Blob blob, std::size_t index) {
  if (blob.rank == 0) blob = {Emit("expand_dims", {{"x", blob}, {"axes", Tensor::IntVector({0})}}), 1};
  if (blob.LogicalRank() > limits::kMaxRank) {
    Fail("has an output of rank " + std::to_string(blob.LogicalRank()) + ", expected at most " +
         std::to_string(limits::kMaxRank));
  }
  blobs_.insert_or_assign(source_.outputs.at(index), blob);
}

void SetLikeInput(Layer& layer, ValueId value) {
  Blob blob = layer.Input();
  blob.value = value;
  layer.SetOutput(blob);
}

Blob BroadcastOf(const std::vector<Blob>& blobs, ValueId value) {
  Blob result{value};
  std::size_t logical = 0;
  for (const Blob& blob : blobs) {
    result.rank = std::max(result.rank, blob.rank);
    logical = std::max(logical, blob.LogicalRank());
  }
  result.withoutSequence = logical > result.rank;
  return result;
}

}  // namespace ulmora::engine::program::layers
