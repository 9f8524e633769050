#pragma once
// What an executable runs: steps over buffers whose addresses are bound once, when the arena has been laid out.

#include "engine/Tensor.h"
#include "engine/cpu/OneDnn.h"
#include "engine/program/OpCall.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ulmora::engine::cpu {

/// A piece of memory that steps read and write: in the arena, a constant, or the executable's input or output.
using BufferId = std::int32_t;

/// Address of every buffer, by BufferId.
using AddressTable = std::span<void* const>;

class Step {
 public:
  Step() = default;
  virtual ~Step() = default;
  Step(const Step&) = delete;  // bound to addresses
  Step& operator=(const Step&) = delete;

  virtual void Bind(AddressTable addresses) = 0;
  virtual void Run() = 0;
};

/// An argument of one of the library's primitives.
struct Argument {
  int index = 0;  ///< DNNL_ARG_...
  onednn::Desc description;
  BufferId buffer = 0;
};

class PrimitiveStep : public Step {
 public:
  PrimitiveStep(dnnl::primitive primitive, std::vector<Argument> arguments);

  void Bind(AddressTable addresses) override;
  /// Throws dnnl::error.
  void Run() override;

 private:
  dnnl::primitive primitive_;
  std::vector<Argument> arguments_;
  std::vector<dnnl::memory> memories_;
  std::vector<dnnl_exec_arg_t> bound_;
};

/// The buffers of a kernel, in the order in which they were given when the step was made.
class Operands {
 public:
  explicit Operands(std::span<void* const> addresses) : addresses_(addresses) {}

  template <typename T = float>
  [[nodiscard]] T* at(std::size_t index) const {
    return static_cast<T*>(addresses_[index]);
  }

 private:
  std::span<void* const> addresses_;
};

using Kernel = std::function<void(const Operands&)>;

class KernelStep : public Step {
 public:
  KernelStep(Kernel kernel, std::vector<BufferId> buffers);

  void Bind(AddressTable addresses) override;
  void Run() override;

 private:
  Kernel kernel_;
  std::vector<BufferId> buffers_;
  std::vector<void*> bound_;
};

/// Runs an operation by its reference evaluation, over dense row-major buffers. Allocates.
class ReferenceStep : public Step {
 public:
  struct Operand {
    TensorType type;
    std::optional<Tensor> constant;
    BufferId buffer = 0;  ///< of operands that are no constants
  };
  struct Result {
    TensorType type;
    BufferId buffer = 0;
  };

  ReferenceStep(const program::OpDefinition& definition, std::string name, int opset,
                std::vector<std::vector<Operand>> operands, std::vector<Result> results);

  void Bind(AddressTable addresses) override;
  void Run() override;

 private:
  const program::OpDefinition& definition_;
  std::string name_;
  int opset_;
  std::vector<std::vector<Operand>> operands_;
  std::vector<Result> results_;
  AddressTable addresses_;
};

}  // namespace ulmora::engine::cpu
