#include "engine/package/ProgramReader.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/Text.h"
#include "schema/Mil.pb.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace ulmora::engine::package {
namespace {

/// The keys of a protobuf map, sorted and quoted.
template <typename Map>
std::string Keys(const Map& map) {
  std::vector<std::string> keys;
  for (const auto& entry : map) keys.push_back(Quoted(entry.first));
  std::sort(keys.begin(), keys.end());
  constexpr std::size_t kShown = 8;
  std::string text;
  for (std::size_t i = 0; i < std::min(keys.size(), kShown); ++i) text += (i > 0 ? ", " : "") + keys[i];
  if (keys.empty()) return "none";
  return keys.size() > kShown ? text + ", ..." : text;
}

NamedType ReadNamedType(const coreml::NamedValueType& source, const char* what) {
  NamedType result;
  result.name = CheckedName(source.name(), what);
  result.isTensor = source.type().has_tensortype();
  if (!result.isTensor) return result;
  result.type = Within([&] { return "value " + Quoted(source.name()); },
                       [&] { return ReadTensorType(source.type().tensortype()); });
  return result;
}

/// Reads one operation; the message parts stay those of the caller.
class OperationReader {
 public:
  OperationReader(const coreml::Operation& source, ConstantReader& constants)
      : source_(source), constants_(constants) {}

  SourceOperation Read() {
    SourceOperation result;
    result.type = CheckedName(source_.type(), "an operation's type");
    CheckCount(source_.outputs_size(), limits::kMaxOperands, "results");
    result.results.reserve(static_cast<std::size_t>(source_.outputs_size()));
    for (const coreml::NamedValueType& output : source_.outputs()) {
      result.results.push_back(ReadNamedType(output, "a result"));
    }
    result.name = Name();
    result.hasBlocks = source_.blocks_size() > 0;
    for (const auto& [parameter, argument] : source_.inputs()) {
      result.inputs.emplace(CheckedName(parameter, "a parameter"), Bindings(parameter, argument));
    }
    ReadAttributes(result);
    return result;
  }

  /// The informative name if there is a usable one, else that of the first result, for messages.
  [[nodiscard]] std::string Name() const {
    const auto attribute = source_.attributes().find("name");
    if (attribute != source_.attributes().end()) {
      const auto& strings = attribute->second.immediatevalue().tensor().strings();
      if (strings.values_size() == 1 && IsUsableName(strings.values(0))) return strings.values(0);
    }
    return source_.outputs_size() > 0 ? source_.outputs(0).name() : std::string();
  }

 private:
  std::vector<Binding> Bindings(const std::string& parameter, const coreml::Argument& argument) {
    const auto where = [&] { return "parameter " + Quoted(parameter); };
    return Within(where, [&] {
      CheckCount(argument.arguments_size(), limits::kMaxOperands, "operands");
      std::vector<Binding> bindings;
      bindings.reserve(static_cast<std::size_t>(argument.arguments_size()));
      for (const coreml::Argument::Binding& binding : argument.arguments()) {
        if (binding.has_name()) {
          bindings.emplace_back(CheckedName(binding.name(), "an operand"));
        } else if (binding.has_value()) {
          bindings.emplace_back(constants_.Read(binding.value()));
        } else {
          throw Error(Stage::Open, "an operand has neither a name nor a value");
        }
      }
      return bindings;
    });
  }

  /// Attributes that are no tensors carry nothing that a network computes with.
  void ReadAttributes(SourceOperation& result) {
    for (const auto& [key, value] : source_.attributes()) {
      if (key == "name" || !value.type().has_tensortype()) continue;
      const auto where = [&key = key] { return "attribute " + Quoted(key); };
      result.attributes.emplace(key, Within(where, [&, &value = value] { return constants_.Read(value); }));
    }
  }

  const coreml::Operation& source_;
  ConstantReader& constants_;
};

const coreml::Function& FindFunction(const coreml::Program& program, const std::string& name) {
  const auto found = program.functions().find(name);
  if (found != program.functions().end()) return found->second;
  throw Error(Stage::Translate, "the program has no function " + Quoted(name) + ", found " + Keys(program.functions()));
}

const coreml::Block& FindBlock(const coreml::Function& function) {
  const auto& blocks = function.block_specializations();
  const auto found = blocks.find(function.opset());
  if (found != blocks.end()) return found->second;
  throw Error(Stage::Translate,
              "has no block for its operation set " + Quoted(function.opset()) + ", found " + Keys(blocks));
}

void CheckCounts(const coreml::Function& function, const coreml::Block& block) {
  CheckCount(function.inputs_size(), limits::kMaxOperands, "inputs");
  CheckCount(block.outputs_size(), limits::kMaxOperands, "outputs");
  CheckCount(block.operations_size(), limits::kMaxOperations, "operations");
  std::int64_t values = function.inputs_size();
  for (const coreml::Operation& operation : block.operations()) values += operation.outputs_size();
  CheckCount(values, limits::kMaxValues, "values");
}

SourceProgram ReadFunction(const coreml::Function& function, ConstantReader& constants) {
  const coreml::Block& block = FindBlock(function);
  CheckCounts(function, block);
  SourceProgram result;
  result.opset = function.opset();
  for (const coreml::NamedValueType& input : function.inputs()) {
    result.inputs.push_back(ReadNamedType(input, "an input"));
  }
  result.operations.reserve(static_cast<std::size_t>(block.operations_size()));
  for (const coreml::Operation& operation : block.operations()) {
    OperationReader reader(operation, constants);
    const auto where = [&] { return Quoted(operation.type()) + " operation " + Quoted(reader.Name()); };
    result.operations.push_back(Within(where, [&] { return reader.Read(); }));
  }
  for (const std::string& output : block.outputs()) result.outputs.push_back(CheckedName(output, "an output"));
  return result;
}

}  // namespace

SourceProgram ReadProgram(const coreml::Program& program, const std::string& functionName, ConstantReader& constants) {
  const coreml::Function& function = FindFunction(program, functionName);
  return Within([&] { return "function " + Quoted(functionName); }, [&] { return ReadFunction(function, constants); });
}

}  // namespace ulmora::engine::package
