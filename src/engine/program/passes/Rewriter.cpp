#include "engine/program/passes/Rewriter.h"

#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace ulmora::engine::program {
namespace {

std::size_t IndexOf(const OpDefinition& definition, std::string_view parameter) {
  const int index = definition.IndexOf(parameter);
  if (index < 0) {
    throw std::logic_error("operation " + std::string(definition.key) + " has no parameter " + std::string(parameter));
  }
  return static_cast<std::size_t>(index);
}

/// Calls visit for every operand of the operation and of its fused steps, the flowing value excepted.
template <typename Visit>
void VisitOperands(const Operation& operation, const Visit& visit) {
  const auto all = [&visit](const std::vector<Operands>& arguments) {
    for (const Operands& ids : arguments) {
      for (const ValueId id : ids) {
        if (id != kPrevious) visit(id);
      }
    }
  };
  all(operation.arguments);
  for (const FusedStep& step : operation.fused) all(step.arguments);
}

}  // namespace

std::optional<ValueId> Argument(const Operation& operation, std::string_view parameter) {
  const Operands& ids = operation.arguments[IndexOf(*operation.definition, parameter)];
  return ids.empty() ? std::nullopt : std::optional(ids.front());
}

void SetArgument(Operation& operation, std::string_view parameter, ValueId id) {
  operation.arguments[IndexOf(*operation.definition, parameter)] = {id};
}

Operation MakeOperation(std::string_view key, const Operation& root,
                        const std::vector<std::pair<std::string_view, ValueId>>& arguments) {
  Operation operation;
  operation.definition = FindOp(key);
  if (operation.definition == nullptr) throw std::logic_error("there is no operation " + std::string(key));
  operation.name = root.name;
  operation.results = root.results;
  operation.arguments.resize(operation.definition->parameters.size());
  for (const auto& [parameter, id] : arguments) SetArgument(operation, parameter, id);
  return operation;
}

std::optional<double> FloatScalar(const Program& program, ValueId id) {
  const std::optional<Tensor>& constant = program.at(id).constant;
  if (!constant || constant->storage() != Storage::Float || constant->count() != 1) return std::nullopt;
  return static_cast<double>(constant->floats().front());
}

Rewriter::Rewriter(Program& program)
    : program_(program),
      uses_(program.values.size(), 0),
      isOutput_(program.values.size(), false),
      producer_(program.values.size()) {
  for (std::size_t position = 0; position < size(); ++position) {
    Count(program_.operations[position], true);
    for (const ValueId id : program_.operations[position].results) producer_[static_cast<std::size_t>(id)] = position;
  }
  for (const ValueId id : program_.outputs) {
    ++uses_[static_cast<std::size_t>(id)];
    isOutput_[static_cast<std::size_t>(id)] = true;
  }
}

const Operation* Rewriter::At(std::size_t position) const {
  const Operation& operation = program_.operations[position];
  return operation.definition == nullptr ? nullptr : &operation;
}

std::optional<std::size_t> Rewriter::PositionOf(ValueId id) const {
  return producer_[static_cast<std::size_t>(id)];
}

const Operation* Rewriter::Producer(ValueId id, std::string_view key) const {
  const std::optional<std::size_t> position = PositionOf(id);
  if (!position) return nullptr;
  const Operation& operation = program_.operations[*position];
  return operation.definition->key == key && operation.fused.empty() ? &operation : nullptr;
}

const Operation* Rewriter::Inner(ValueId id, std::string_view key, std::size_t uses) const {
  return UseCount(id) == uses && !IsOutput(id) ? Producer(id, key) : nullptr;
}

ValueId Rewriter::AddConstant(Tensor tensor) {
  uses_.push_back(0);
  isOutput_.push_back(false);
  producer_.emplace_back();
  return program_.AddConstant("rewritten_" + std::to_string(program_.values.size()), std::move(tensor));
}

Operation Rewriter::Take(std::size_t position) {
  Operation operation = std::exchange(program_.operations[position], Operation{});
  Count(operation, false);
  for (const ValueId id : operation.results) producer_[static_cast<std::size_t>(id)].reset();
  return operation;
}

void Rewriter::Put(std::size_t position, Operation operation) {
  Count(operation, true);
  for (const ValueId id : operation.results) producer_[static_cast<std::size_t>(id)] = position;
  program_.operations[position] = std::move(operation);
}

void Rewriter::Replace(std::size_t position, Operation operation) {
  const Operation old = Take(position);
  Put(position, std::move(operation));
  RemoveUnused(old);
}

void Rewriter::Finish() {
  std::erase_if(program_.operations, [](const Operation& operation) { return operation.definition == nullptr; });
}

void Rewriter::Count(const Operation& operation, bool add) {
  VisitOperands(operation, [this, add](ValueId id) {
    std::size_t& uses = uses_[static_cast<std::size_t>(id)];
    uses = add ? uses + 1 : uses - 1;
  });
}

void Rewriter::RemoveUnused(const Operation& released) {
  std::vector<Operation> pending = {released};
  while (!pending.empty()) {
    const Operation operation = std::move(pending.back());
    pending.pop_back();
    VisitOperands(operation, [this, &pending](ValueId id) {
      const std::optional<std::size_t> position = PositionOf(id);
      if (!position) return;
      const std::vector<ValueId>& results = program_.operations[*position].results;
      if (std::ranges::any_of(results, [this](ValueId result) { return UseCount(result) > 0; })) return;
      pending.push_back(Take(*position));
    });
  }
}

}  // namespace ulmora::engine::program
