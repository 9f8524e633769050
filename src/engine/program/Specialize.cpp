#include "engine/program/Specialize.h"

#include "engine/Error.h"
#include "engine/program/FoldingBudget.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace ulmora::engine::program {
namespace {

bool Contradicts(const TensorType& declared, const Shape& found) {
  if (!declared.rankKnown) return false;
  if (declared.shape.size() != found.size()) return true;
  for (std::size_t i = 0; i < found.size(); ++i) {
    if (declared.shape[i] != kUnknownDim && declared.shape[i] != found[i]) return true;
  }
  return false;
}

class Specializer {
 public:
  explicit Specializer(const Program& program) : program_(program), budget_(program) {}

  Program Run(const std::vector<Shape>& inputShapes) {
    BindInputs(inputShapes);
    std::vector<Operation> kept;
    kept.reserve(program_.operations.size());
    for (Operation& operation : program_.operations) {
      if (!Visit(operation)) kept.push_back(std::move(operation));
    }
    program_.operations = std::move(kept);
    return std::move(program_);
  }

 private:
  void BindInputs(const std::vector<Shape>& shapes) {
    if (shapes.size() != program_.inputs.size()) {
      throw Error(Stage::Translate, "the network has " + std::to_string(program_.inputs.size()) + " inputs, " +
                                        std::to_string(shapes.size()) + " shapes were given");
    }
    for (std::size_t i = 0; i < shapes.size(); ++i) {
      Value& input = program_.at(program_.inputs[i]);
      if (!IsStatic(shapes[i]) || Contradicts(input.type, shapes[i])) {
        throw Error(Stage::Translate, "input '" + input.name + "' has shape " + ToString(shapes[i]) + ", expected " +
                                          ToString(input.type.shape));
      }
      if (ElementCount(shapes[i]) == 0) {
        throw Error(Stage::Translate,
                    "input '" + input.name + "' has shape " + ToString(shapes[i]) + " without elements");
      }
      input.type.shape = shapes[i];
      input.type.rankKnown = true;
    }
  }

  /// True if the operation was folded away.
  bool Visit(const Operation& operation) {
    if (!operation.fused.empty()) throw std::logic_error("a rewritten program cannot be specialized again");
    const OpCall call(program_, operation);
    RequireConstants(call);
    const std::vector<TensorType> types = call.definition().infer(call);
    AcceptTypes(call, operation, types);
    if (!ShouldFold(call, types)) return false;
    Fold(call, operation, types);
    return true;
  }

  static void RequireConstants(const OpCall& call) {
    for (const Parameter& parameter : call.definition().parameters) {
      if (parameter.mustBeConstant && call.Has(parameter.name)) static_cast<void>(call.Value(parameter.name));
    }
  }

  void AcceptTypes(const OpCall& call, const Operation& operation, const std::vector<TensorType>& types) {
    if (types.size() != operation.results.size()) {
      call.Fail("has " + std::to_string(operation.results.size()) + " results, expected " +
                std::to_string(types.size()));
    }
    for (std::size_t i = 0; i < types.size(); ++i) {
      CheckSize(call, types[i].shape);
      Value& value = program_.at(operation.results[i]);
      if (Contradicts(value.type, types[i].shape) || StorageOf(value.type.element) != StorageOf(types[i].element)) {
        call.Fail("result '" + value.name + "' is declared as " + Describe(value.type) + ", but is " +
                  Describe(types[i]));
      }
      value.type = types[i];
    }
  }

  static std::string Describe(const TensorType& type) {
    return std::string(NameOf(type.element)) + " " + (type.rankKnown ? ToString(type.shape) : "of any shape");
  }

  /// Repeats the bound of ElementCount with the operation's name in the message.
  static void CheckSize(const OpCall& call, const Shape& shape) {
    try {
      static_cast<void>(ElementCount(shape));
    } catch (const Error& error) {
      call.Fail(error.what());
    }
  }

  bool ShouldFold(const OpCall& call, const std::vector<TensorType>& types) {
    std::int64_t read = 1;
    for (const Parameter& parameter : call.definition().parameters) {
      for (std::size_t i = 0; !parameter.typeOnly && i < call.Count(parameter.name); ++i) {
        if (!call.IsKnown(parameter.name, i)) return false;
        read += call.Value(parameter.name, i).count();
      }
    }
    FoldingCost cost{read, 0, 0, call.definition().costly};
    for (const TensorType& type : types) {
      const std::int64_t count = ElementCount(type.shape);
      cost.written += count;
      cost.largest = std::max(cost.largest, count);
    }
    return budget_.Take(cost);
  }

  void Fold(const OpCall& call, const Operation& operation, const std::vector<TensorType>& types) {
    std::vector<Tensor> results = call.definition().evaluate(call);
    if (results.size() != types.size()) throw std::logic_error("evaluation and shape rule disagree on the results");
    for (std::size_t i = 0; i < results.size(); ++i) {
      if (results[i].type() != types[i]) {
        throw std::logic_error("evaluation of " + std::string(call.definition().key) + " gave " +
                               Describe(results[i].type()) + ", its shape rule " + Describe(types[i]));
      }
      program_.at(operation.results[i]).constant = std::move(results[i]);
    }
  }

  Program program_;
  FoldingBudget budget_;
};

}  // namespace

Program Specialize(const Program& program, const std::vector<Shape>& inputShapes) {
  return Specializer(program).Run(inputShapes);
}

}  // namespace ulmora::engine::program
