#include "engine/program/import/MilImport.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Specialize.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace ulmora::engine::program {
namespace {

using package::Binding;
using package::ModelSource;
using package::NamedType;
using package::SourceOperation;
using package::SourceProgram;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Translate, message);
}

std::string Quoted(std::string_view name) {
  return "'" + std::string(name) + "'";
}

/// The number N of the operation set "CoreMLN". Newer sets than those known are let through: what they add is refused
/// by name.
int OpsetNumber(const std::string& opset) {
  constexpr std::string_view kPrefix = "CoreML";
  constexpr int kOldest = 5;
  int number = 0;
  if (opset.starts_with(kPrefix)) {
    const char* const end = opset.data() + opset.size();
    const auto [stop, error] = std::from_chars(opset.data() + kPrefix.size(), end, number);
    if (error != std::errc() || stop != end) number = 0;
  }
  if (number < kOldest) Fail("unknown operation set " + Quoted(opset) + ", expected CoreML5 or later");
  return number;
}

/// What to say of an operation that we do not run: why, where it is one of the package format.
std::string WhyUnknown(std::string_view type) {
  static constexpr std::pair<std::string_view, std::string_view> kReasons[] = {
      {"classify", "classifiers are not supported"},
      {"gru", "recurrent layers are not supported"},
      {"list_", "lists of tensors are not supported"},
      {"lstm", "recurrent layers are not supported"},
      {"make_list", "lists of tensors are not supported"},
      {"non_maximum_suppression", "detection of objects is not supported"},
      {"random_", "results that differ from run to run are not supported"},
      {"read_state", "networks that keep a state from run to run are not supported"},
      {"rnn", "recurrent layers are not supported"},
      {"write_state", "networks that keep a state from run to run are not supported"},
  };
  for (const auto& [beginning, reason] : kReasons) {
    if (type.starts_with(beginning)) return std::string(reason);
  }
  return "unknown operation";
}

bool Contradicts(const TensorType& declared, const Tensor& found) {
  if (StorageOf(declared.element) != found.storage()) return true;
  if (!declared.rankKnown) return false;
  return !std::equal(declared.shape.begin(), declared.shape.end(), found.shape().begin(), found.shape().end(),
                     [](std::int64_t left, std::int64_t right) { return left == kUnknownDim || left == right; });
}

class Importer {
 public:
  Program Run(const SourceProgram& source) {
    program_.opset = OpsetNumber(source.opset);
    for (const NamedType& input : source.inputs) AddInput(input);
    program_.operations.reserve(source.operations.size());
    for (const SourceOperation& operation : source.operations) {
      current_ = &operation;
      if (operation.type == "const") {
        AddConst(operation);
      } else {
        AddOperation(operation);
      }
    }
    for (const std::string& output : source.outputs) {
      const auto found = names_.find(output);
      if (found == names_.end()) Fail("the program's output " + Quoted(output) + " is not defined");
      program_.outputs.push_back(found->second);
    }
    return std::move(program_);
  }

 private:
  [[noreturn]] void FailHere(const std::string& message) const {
    Fail(current_->type + " " + Quoted(current_->name) + ": " + message);
  }

  void AddInput(const NamedType& input) {
    if (!input.isTensor) Fail("the program's input " + Quoted(input.name) + " is not a tensor");
    if (names_.contains(input.name)) Fail("the program's input " + Quoted(input.name) + " is defined twice");
    const ValueId id = program_.AddValue({input.name, input.type, std::nullopt});
    names_.emplace(input.name, id);
    program_.inputs.push_back(id);
  }

  ValueId AddResult(const NamedType& result, std::optional<Tensor> constant) {
    if (!result.isTensor) FailHere("result " + Quoted(result.name) + " is not a tensor");
    TensorType type = constant ? constant->type() : result.type;
    const ValueId id = Register({result.name, std::move(type), std::move(constant)});
    if (!names_.emplace(result.name, id).second) FailHere("result " + Quoted(result.name) + " is already defined");
    return id;
  }

  ValueId Register(Value value) {
    if (std::cmp_greater_equal(program_.values.size(), limits::kMaxValues)) {
      FailHere("is beyond the limit of " + std::to_string(limits::kMaxValues) + " values");
    }
    return program_.AddValue(std::move(value));
  }

  void AddConst(const SourceOperation& source) {
    if (source.results.size() != 1) FailHere("has " + std::to_string(source.results.size()) + " results, expected 1");
    const auto value = source.attributes.find("val");
    if (value == source.attributes.end()) FailHere("has no value");
    const NamedType& result = source.results.front();
    if (result.isTensor && Contradicts(result.type, value->second)) {
      FailHere("is declared as " + std::string(NameOf(result.type.element)) + " " + ToString(result.type.shape) +
               ", but its value is " + std::string(NameOf(value->second.element())) + " " +
               ToString(value->second.shape()));
    }
    AddResult(result, value->second);
  }

  void AddOperation(const SourceOperation& source) {
    if (source.hasBlocks) FailHere("contains nested blocks; control flow is not supported");
    const OpDefinition* definition = FindOp(source.type);
    if (definition == nullptr) FailHere(WhyUnknown(source.type));
    Operation operation{definition, source.name, std::vector<Operands>(definition->parameters.size()), {}, {}};
    for (const auto& [name, bindings] : source.inputs) {
      const int index = definition->IndexOf(name);
      if (index < 0) FailHere("has no parameter " + Quoted(name));
      operation.arguments[static_cast<std::size_t>(index)] = Resolve(name, bindings);
    }
    AddAttributes(source, operation);
    CheckPresence(operation);
    for (const NamedType& result : source.results) operation.results.push_back(AddResult(result, std::nullopt));
    program_.operations.push_back(std::move(operation));
  }

  Operands Resolve(const std::string& parameter, const std::vector<Binding>& bindings) {
    Operands operands;
    operands.reserve(bindings.size());
    for (const Binding& binding : bindings) {
      if (const auto* constant = std::get_if<Tensor>(&binding)) {
        operands.push_back(Inline(parameter, *constant));
        continue;
      }
      const std::string& name = std::get<std::string>(binding);
      const auto found = names_.find(name);
      if (found == names_.end()) {
        FailHere("parameter " + Quoted(parameter) + " names " + Quoted(name) + ", which is not defined before it");
      }
      operands.push_back(found->second);
    }
    return operands;
  }

  ValueId Inline(const std::string& parameter, const Tensor& constant) {
    return Register({current_->name + "." + parameter, constant.type(), constant});
  }

  /// Operations that unpack compressed constants have their parameters among the attributes in older operation sets.
  /// Attributes that are no parameters are remarks of the converter.
  void AddAttributes(const SourceOperation& source, Operation& operation) {
    for (const auto& [name, constant] : source.attributes) {
      const int index = operation.definition->IndexOf(name);
      if (index < 0) continue;
      Operands& operands = operation.arguments[static_cast<std::size_t>(index)];
      if (!operands.empty()) FailHere("has parameter " + Quoted(name) + " twice, as input and as attribute");
      operands = {Inline(name, constant)};
    }
  }

  void CheckPresence(const Operation& operation) const {
    for (std::size_t i = 0; i < operation.arguments.size(); ++i) {
      const Parameter& parameter = operation.definition->parameters[i];
      const std::size_t count = operation.arguments[i].size();
      if (count == 0 && parameter.presence != Presence::Optional) {
        FailHere("lacks parameter " + Quoted(parameter.name));
      }
      if (count > 1 && parameter.presence != Presence::Variadic) {
        FailHere("has " + std::to_string(count) + " operands for parameter " + Quoted(parameter.name) + ", expected 1");
      }
    }
  }

  Program program_;
  std::unordered_map<std::string, ValueId> names_;
  const SourceOperation* current_ = nullptr;  ///< the one that messages are about
};

/// The shapes of all inputs if the program declares them or the description has defaults for them; else nothing.
std::optional<std::vector<Shape>> KnownShapes(const Program& program, const std::vector<Feature>& features) {
  std::vector<Shape> shapes;
  for (const ValueId id : program.inputs) {
    const Value& input = program.at(id);
    if (input.type.rankKnown && IsStatic(input.type.shape)) {
      shapes.push_back(input.type.shape);
      continue;
    }
    const auto feature = std::ranges::find(features, input.name, &Feature::name);
    if (feature == features.end() || feature->shape.empty()) return std::nullopt;
    shapes.push_back(feature->shape);
  }
  return shapes;
}

}  // namespace

Program ImportMil(const ModelSource& source) {
  Program program = Importer().Run(source.program);
  if (const auto shapes = KnownShapes(program, source.inputs)) static_cast<void>(Specialize(program, *shapes));
  return program;
}

}  // namespace ulmora::engine::program
