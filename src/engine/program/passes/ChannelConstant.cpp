#include "engine/program/passes/ChannelConstant.h"

namespace ulmora::engine::program {

bool IsChannelConstant(const Program& program, ValueId id, const Shape& shape, std::size_t axis) {
  const std::optional<Tensor>& constant = program.at(id).constant;
  if (!constant || constant->storage() != Storage::Float || constant->shape().size() > shape.size()) return false;
  const Shape& own = constant->shape();
  const std::size_t shift = shape.size() - own.size();
  for (std::size_t i = 0; i < own.size(); ++i) {
    if (own[i] != 1 && (shift + i != axis || own[i] != shape[axis])) return false;
  }
  return true;
}

std::optional<std::vector<double>> ReadChannelConstant(const Program& program, ValueId id, const Shape& shape,
                                                       std::size_t axis) {
  if (!IsChannelConstant(program, id, shape, axis)) return std::nullopt;
  const std::span<const float> elements = program.at(id).constant->floats();
  if (elements.size() == 1) {
    return std::vector<double>(static_cast<std::size_t>(shape[axis]), static_cast<double>(elements.front()));
  }
  return std::vector<double>(elements.begin(), elements.end());
}

}  // namespace ulmora::engine::program
