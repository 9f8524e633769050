#include "engine/program/Print.h"

#include "engine/program/OpRegistry.h"

#include <sstream>

namespace ulmora::engine::program {
namespace {

/// Attributes have at most a few entries; weights have more.
constexpr std::int64_t kMaxPrintedElements = 10;

std::string TypeText(const TensorType& type) {
  return std::string(NameOf(type.element)) + " " + (type.rankKnown ? ToString(type.shape) : "[...]");
}

void WriteElement(std::ostream& out, const Tensor& tensor, std::size_t i) {
  switch (tensor.storage()) {
    case Storage::Float:
      out << tensor.floats()[i];
      break;
    case Storage::Int:
      out << tensor.ints()[i];
      break;
    case Storage::Bool:
      out << (tensor.bools()[i] != 0 ? "true" : "false");
      break;
    case Storage::String:
      out << '"' << tensor.strings()[i] << '"';
      break;
  }
}

void WriteConstant(std::ostream& out, const Value& value) {
  const Tensor& tensor = *value.constant;
  if (tensor.shape().size() > 1 || tensor.count() > kMaxPrintedElements) {
    out << value.name << ": " << TypeText(tensor.type());
    return;
  }
  const bool scalar = tensor.shape().empty();
  if (!scalar) out << '[';
  for (std::int64_t i = 0; i < tensor.count(); ++i) {
    if (i > 0) out << ", ";
    WriteElement(out, tensor, static_cast<std::size_t>(i));
  }
  if (!scalar) out << ']';
}

void WriteOperand(std::ostream& out, const Program& program, ValueId id) {
  if (id == kPrevious) {
    out << '.';
  } else if (program.at(id).constant) {
    WriteConstant(out, program.at(id));
  } else {
    out << program.at(id).name;
  }
}

void WriteCall(std::ostream& out, const Program& program, const OpDefinition& definition,
               const std::vector<Operands>& arguments) {
  out << definition.key << '(';
  const char* separator = "";
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i].empty()) continue;
    const bool variadic = definition.parameters[i].presence == Presence::Variadic;
    out << separator << definition.parameters[i].name << '=' << (variadic ? "(" : "");
    separator = ", ";
    const char* inner = "";
    for (const ValueId id : arguments[i]) {
      out << inner;
      WriteOperand(out, program, id);
      inner = ", ";
    }
    if (variadic) out << ')';
  }
  out << ')';
}

}  // namespace

std::string Print(const Program& program, const Operation& operation) {
  std::ostringstream out;
  const char* separator = "";
  for (const ValueId result : operation.results) {
    out << separator << program.at(result).name << ": " << TypeText(program.at(result).type);
    separator = ", ";
  }
  out << " = ";
  WriteCall(out, program, *operation.definition, operation.arguments);
  for (const FusedStep& step : operation.fused) {
    out << ", ";
    WriteCall(out, program, *step.definition, step.arguments);
  }
  return out.str();
}

std::string Print(const Program& program) {
  std::string text;
  for (const ValueId id : program.inputs) {
    text += "input " + program.at(id).name + ": " + TypeText(program.at(id).type) + "\n";
  }
  for (const Operation& operation : program.operations) text += Print(program, operation) + "\n";
  for (const ValueId id : program.outputs) {
    std::ostringstream out;
    WriteOperand(out, program, id);
    text += "output " + out.str() + "\n";
  }
  return text;
}

}  // namespace ulmora::engine::program
