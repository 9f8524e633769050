#include "engine/program/Program.h"

#include <utility>

namespace ulmora::engine::program {

ValueId Program::AddValue(Value value) {
  values.push_back(std::move(value));
  return static_cast<ValueId>(values.size() - 1);
}

ValueId Program::AddConstant(std::string name, Tensor tensor) {
  TensorType type = tensor.type();
  return AddValue({std::move(name), std::move(type), std::move(tensor)});
}

}  // namespace ulmora::engine::program
