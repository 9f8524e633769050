#include "engine/cpu/Step.h"

#include "engine/cpu/Layout.h"
#include "engine/program/OpRegistry.h"

#include <cstring>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

void* At(AddressTable addresses, BufferId buffer) {
  return addresses[static_cast<std::size_t>(buffer)];
}

template <typename T>
std::vector<T> CopyOut(const void* elements, const Shape& shape) {
  const T* first = static_cast<const T*>(elements);
  return {first, first + ElementCount(shape)};
}

Tensor ReadTensor(const TensorType& type, const void* elements) {
  switch (StorageOf(type.element)) {
    case Storage::Int:
      return Tensor::Ints(type.shape, CopyOut<std::int32_t>(elements, type.shape), type.element);
    case Storage::Bool:
      return Tensor::Bools(type.shape, CopyOut<std::uint8_t>(elements, type.shape));
    default:
      return Tensor::Floats(type.shape, CopyOut<float>(elements, type.shape), type.element);
  }
}

void WriteTensor(const Tensor& tensor, void* elements) {
  const auto copy = [&](const auto& span) {
    if (!span.empty()) std::memcpy(elements, span.data(), span.size_bytes());
  };
  switch (tensor.storage()) {
    case Storage::Int:
      return copy(tensor.ints());
    case Storage::Bool:
      return copy(tensor.bools());
    default:
      return copy(tensor.floats());
  }
}

}  // namespace

PrimitiveStep::PrimitiveStep(dnnl::primitive primitive, std::vector<Argument> arguments)
    : primitive_(std::move(primitive)), arguments_(std::move(arguments)) {}

void PrimitiveStep::Bind(AddressTable addresses) {
  memories_.clear();
  bound_.clear();
  for (const Argument& argument : arguments_) {
    memories_.emplace_back(argument.description, onednn::CpuEngine(), At(addresses, argument.buffer));
    bound_.push_back({argument.index, memories_.back().get()});
  }
}

void PrimitiveStep::Run() {
  // The C++ interface takes a map and builds this array from it at every call.
  dnnl::error::wrap_c_api(dnnl_primitive_execute(primitive_.get(), onednn::CpuStream().get(),
                                                 static_cast<int>(bound_.size()), bound_.data()),
                          "the primitive failed");
}

KernelStep::KernelStep(Kernel kernel, std::vector<BufferId> buffers)
    : kernel_(std::move(kernel)), buffers_(std::move(buffers)) {}

void KernelStep::Bind(AddressTable addresses) {
  bound_.clear();
  for (const BufferId buffer : buffers_) bound_.push_back(At(addresses, buffer));
}

void KernelStep::Run() {
  kernel_(Operands(bound_));
}

ReferenceStep::ReferenceStep(const program::OpDefinition& definition, std::string name, int opset,
                             std::vector<std::vector<Operand>> operands, std::vector<Result> results)
    : definition_(definition),
      name_(std::move(name)),
      opset_(opset),
      operands_(std::move(operands)),
      results_(std::move(results)) {}

void ReferenceStep::Bind(AddressTable addresses) {
  addresses_ = addresses;
}

void ReferenceStep::Run() {
  std::vector<std::vector<Tensor>> values;
  std::vector<std::vector<program::OpCall::Operand>> operands;
  for (const std::vector<Operand>& parameter : operands_) {
    std::vector<Tensor>& tensors = values.emplace_back();
    for (const Operand& operand : parameter) {
      tensors.push_back(operand.constant ? *operand.constant
                                         : ReadTensor(operand.type, At(addresses_, operand.buffer)));
    }
    std::vector<program::OpCall::Operand>& row = operands.emplace_back();
    for (const Tensor& tensor : tensors) row.push_back({tensor.type(), &tensor});
  }
  std::vector<TensorType> declared;
  for (const Result& result : results_) declared.push_back(result.type);
  const program::OpCall call(definition_, name_, opset_, std::move(operands), std::move(declared));
  const std::vector<Tensor> results = definition_.evaluate(call);
  for (std::size_t i = 0; i < results_.size(); ++i) WriteTensor(results.at(i), At(addresses_, results_[i].buffer));
}

}  // namespace ulmora::engine::cpu
