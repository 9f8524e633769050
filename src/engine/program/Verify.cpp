#include "engine/program/Verify.h"

#include "engine/Error.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Translate, message);
}

/// "conv 'enc1'" for messages.
std::string Title(const Operation& operation) {
  return std::string(operation.definition->key) + " '" + operation.name + "'";
}

std::string Describe(const TensorType& type) {
  return std::string(NameOf(type.element)) + " " + (type.rankKnown ? ToString(type.shape) : "of any shape");
}

class Verifier {
 public:
  /// `specialized`: parameters that must be constant are constant by now.
  Verifier(const Program& program, bool specialized)
      : program_(program), specialized_(specialized), defined_(program.values.size(), false) {}

  void CheckStructure() {
    DefineConstants();
    for (const ValueId input : program_.inputs) Define(input, "the program's inputs");
    for (const Operation& operation : program_.operations) {
      if (operation.definition == nullptr) Fail("operation '" + operation.name + "' has no definition");
      CheckArguments(operation, *operation.definition, operation.arguments, Title(operation), false);
      for (const FusedStep& step : operation.fused) CheckStep(operation, step);
      if (operation.results.empty()) Fail(Title(operation) + " has no results");
      for (const ValueId result : operation.results) Define(result, Title(operation));
    }
    for (const ValueId output : program_.outputs) RequireDefined(output, "the program's outputs");
  }

  void CheckTypes() const {
    for (std::size_t i = 0; i < program_.values.size(); ++i) {
      // Values that lost their origin stay in the list; nothing uses them.
      if (defined_[i]) CheckBound(program_.values[i]);
    }
    for (const Operation& operation : program_.operations) CheckResults(operation);
  }

 private:
  [[nodiscard]] bool Exists(ValueId id) const { return id >= 0 && std::cmp_less(id, program_.values.size()); }

  void DefineConstants() {
    for (std::size_t i = 0; i < program_.values.size(); ++i) {
      const Value& value = program_.values[i];
      if (!value.constant) continue;
      if (value.constant->type() != value.type) {
        Fail("constant '" + value.name + "' is " + Describe(value.constant->type()) + ", but typed as " +
             Describe(value.type));
      }
      defined_[i] = true;
    }
  }

  void Define(ValueId id, const std::string& where) {
    if (!Exists(id)) Fail(where + ": there is no value " + std::to_string(id));
    std::vector<bool>::reference defined = defined_[static_cast<std::size_t>(id)];
    if (defined) Fail(where + ": value '" + program_.at(id).name + "' is defined twice");
    defined = true;
  }

  void RequireDefined(ValueId id, const std::string& where) const {
    if (!Exists(id)) Fail(where + ": there is no value " + std::to_string(id));
    if (!defined_[static_cast<std::size_t>(id)]) {
      Fail(where + ": value '" + program_.at(id).name + "' is used before it is defined");
    }
  }

  /// Returns how many operands are the flowing value, which only fused steps may have.
  std::size_t CheckArguments(const Operation& operation, const OpDefinition& definition,
                             const std::vector<Operands>& arguments, const std::string& where, bool fused) const {
    if (arguments.size() != definition.parameters.size()) {
      Fail(Title(operation) + " has " + std::to_string(arguments.size()) + " arguments, expected " +
           std::to_string(definition.parameters.size()));
    }
    std::size_t flowing = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      const Parameter& parameter = definition.parameters[i];
      CheckPresence(parameter, arguments[i].size(), where);
      for (const ValueId id : arguments[i]) {
        if (fused && id == kPrevious) {
          ++flowing;
          continue;
        }
        RequireDefined(id, where);
        if (parameter.mustBeConstant && specialized_ && !program_.at(id).constant) {
          Fail(where + ": parameter '" + std::string(parameter.name) + "' must be a constant");
        }
      }
    }
    return flowing;
  }

  static void CheckPresence(const Parameter& parameter, std::size_t count, const std::string& where) {
    const std::string name = "parameter '" + std::string(parameter.name) + "'";
    if (count == 0 && parameter.presence != Presence::Optional) Fail(where + ": " + name + " is missing");
    if (count > 1 && parameter.presence != Presence::Variadic) {
      Fail(where + ": " + name + " has " + std::to_string(count) + " operands, expected 1");
    }
  }

  void CheckStep(const Operation& operation, const FusedStep& step) const {
    if (step.definition == nullptr) Fail(Title(operation) + " has a fused step without definition");
    const std::string where = Title(operation) + ", fused " + std::string(step.definition->key);
    if (CheckArguments(operation, *step.definition, step.arguments, where, true) == 0) {
      Fail(where + ": does not use the value before it");
    }
  }

  static void CheckBound(const Value& value) {
    if (!value.type.rankKnown) Fail("value '" + value.name + "' has no known shape");
    try {
      static_cast<void>(ElementCount(value.type.shape));
    } catch (const Error& error) {
      Fail("value '" + value.name + "': " + error.what());
    }
  }

  void CheckResults(const Operation& operation) const {
    const OpCall call(program_, operation);
    std::vector<TensorType> types = operation.definition->infer(call);
    if (types.size() != operation.results.size()) {
      Fail(Title(operation) + " has " + std::to_string(operation.results.size()) + " results, expected " +
           std::to_string(types.size()));
    }
    for (const FusedStep& step : operation.fused) ApplyStep(operation, step, types.front());
    for (std::size_t i = 0; i < types.size(); ++i) {
      const Value& value = program_.at(operation.results[i]);
      if (!SameForUs(value.type, types[i])) {
        Fail(Title(operation) + ": result '" + value.name + "' is typed as " + Describe(value.type) + ", but is " +
             Describe(types[i]));
      }
    }
  }

  /// Passes may drop conversions between float types, all of which are held as float32.
  static bool SameForUs(const TensorType& a, const TensorType& b) {
    return a.shape == b.shape && StorageOf(a.element) == StorageOf(b.element);
  }

  void ApplyStep(const Operation& operation, const FusedStep& step, const TensorType& flowing) const {
    std::vector<std::vector<OpCall::Operand>> operands(step.arguments.size());
    for (std::size_t i = 0; i < step.arguments.size(); ++i) {
      for (const ValueId id : step.arguments[i]) {
        if (id == kPrevious) {
          operands[i].push_back({flowing, nullptr});
        } else {
          const Value& value = program_.at(id);
          operands[i].push_back({value.type, value.constant ? &*value.constant : nullptr});
        }
      }
    }
    const OpCall call(*step.definition, operation.name, program_.opset, std::move(operands));
    const std::vector<TensorType> types = step.definition->infer(call);
    if (types.size() != 1 || !SameForUs(types.front(), flowing)) {
      Fail(Title(operation) + ", fused " + std::string(step.definition->key) + ": turns " + Describe(flowing) +
           " into " + Describe(types.front()));
    }
  }

  const Program& program_;
  bool specialized_;
  std::vector<bool> defined_;
};

}  // namespace

void Verify(const Program& program) {
  Verifier(program, false).CheckStructure();
}

void VerifySpecialized(const Program& program) {
  Verifier verifier(program, true);
  verifier.CheckStructure();
  verifier.CheckTypes();
}

}  // namespace ulmora::engine::program
