#pragma once
// Collects the steps of an executable while operations are lowered one after another: which value lies in which buffer
// and layout, who still needs it, and what has to be reordered.

#include "engine/cpu/Layout.h"
#include "engine/cpu/Step.h"
#include "engine/cpu/WeightStore.h"
#include "engine/program/Program.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ulmora::engine::cpu {

/// A step with the operation that it belongs to and what runs it, for messages and measurements.
struct LabelledStep {
  std::string label;
  std::string runner;
  std::unique_ptr<Step> step;
};

/// A buffer as the steps see it. External ones have an address from the start and are never overwritten but by whoever
/// owns them; parts lie in another buffer; the others are placed in the arena, for the steps from first to last.
struct BufferRecord {
  std::int64_t bytes = 0;
  void* external = nullptr;
  std::optional<BufferId> whole{};  ///< of a part: the buffer in which it lies, which is no part itself
  std::int64_t offset = 0;          ///< of a part: where it begins, in bytes
  std::int64_t first = -1;
  std::int64_t last = -1;
};

class Emitter {
 public:
  /// `program` must outlive the emitter; its input and output lie, in Plain, at these addresses.
  Emitter(const program::Program& program, WeightStore& weights, void* input, void* output);

  [[nodiscard]] const program::Program& program() const noexcept { return program_; }

  /// Begins the lowering of an operation; ends it again, after which what it alone still needed is free.
  void Begin(const program::Operation& operation);
  void End();

  /// Buffer of a value in that layout, reordered if it lies in others only. Constants included.
  [[nodiscard]] BufferId Source(program::ValueId value, Layout layout);
  /// Buffer of a float value as `wanted` describes it, given that its row-major elements mean `given`: prepared once
  /// for a constant, reordered at each run for another value.
  [[nodiscard]] BufferId SourceAs(program::ValueId value, const onednn::Desc& given, const onednn::Desc& wanted);
  [[nodiscard]] BufferId Constant(const Tensor& constant, const onednn::Desc& given, const onednn::Desc& wanted);
  [[nodiscard]] BufferId Constant(const Tensor& constant);
  /// A form of the constant's elements that a kernel of ours reads, made by `pack` unless there is one already.
  [[nodiscard]] BufferId PackedConstant(const Tensor& constant, std::int64_t bytes, const WeightStore::Packer& pack);
  /// Bytes of all such forms so far.
  [[nodiscard]] std::int64_t packedBytes() const noexcept { return weights_.packedBytes(); }

  /// New buffer for a result.
  [[nodiscard]] BufferId Result(program::ValueId value, Layout layout);
  /// True if ResultOver would give the operand's own buffer.
  [[nodiscard]] bool CanReuse(program::ValueId value, program::ValueId operand, Layout layout);
  /// The buffer of `operand`, if this operation is the last to need anything in it; a new one otherwise. For steps that
  /// read an element before they write it.
  [[nodiscard]] BufferId ResultOver(program::ValueId value, program::ValueId operand, Layout layout);
  /// A buffer for the result that already holds the elements of `operand`: its own if this operation is the last to
  /// need anything in it, a copy otherwise. For steps that add to their result.
  [[nodiscard]] BufferId ResultFrom(program::ValueId value, program::ValueId operand, Layout layout);
  /// Declares that the bytes of `source` in one layout are those of the result in another.
  void Alias(program::ValueId value, Layout layout, program::ValueId source, Layout sourceLayout);
  /// The same of consecutive bytes of `source`, from `offset` on.
  void AliasPart(program::ValueId value, Layout layout, program::ValueId source, Layout sourceLayout,
                 std::int64_t offset);
  /// Memory of the next step alone, or of several if each names it.
  [[nodiscard]] BufferId Scratch(std::int64_t bytes);

  /// `scratch` describes the memory that the primitive wants besides its arguments.
  void Add(dnnl::primitive primitive, std::vector<Argument> arguments, const onednn::Desc& scratch,
           const std::string& what = "");
  void Add(Kernel kernel, std::vector<BufferId> buffers, std::string runner = "kernel");
  void Add(std::unique_ptr<Step> step, const std::vector<BufferId>& buffers, std::string runner);
  /// Adds the library's reorder between two buffers.
  void Reorder(BufferId from, const onednn::Desc& fromDescription, BufferId to, const onednn::Desc& toDescription);

  /// Brings the program's output to its address if no step has written it there.
  void Finish();

  [[nodiscard]] std::vector<LabelledStep>& steps() noexcept { return steps_; }
  [[nodiscard]] const std::vector<BufferRecord>& buffers() const noexcept { return buffers_; }

 private:
  using Placement = std::array<std::optional<BufferId>, kLayouts>;

  [[nodiscard]] Placement& At(program::ValueId value) { return placements_[static_cast<std::size_t>(value)]; }
  [[nodiscard]] BufferId NewBuffer(std::int64_t bytes, void* external = nullptr);
  /// True if nothing in the buffer is needed any more once the operation being lowered has read `operand` from it.
  [[nodiscard]] bool IsFreeAfter(BufferId buffer, program::ValueId operand);
  [[nodiscard]] bool IsOutput(program::ValueId value, Layout layout) const;
  void Place(program::ValueId value, Layout layout, BufferId buffer);
  void Touch(BufferId buffer);
  void CopyBytes(BufferId from, BufferId to, std::int64_t bytes);

  const program::Program& program_;
  WeightStore& weights_;
  std::vector<Placement> placements_;
  std::vector<std::int64_t> pending_;                   ///< uses of each value that are still to come
  std::vector<std::int64_t> current_;                   ///< of these, uses by the operation being lowered
  std::vector<std::vector<program::ValueId>> tenants_;  ///< values that lie in each buffer
  std::vector<BufferRecord> buffers_;
  std::vector<LabelledStep> steps_;
  const program::Operation* operation_ = nullptr;
  BufferId output_ = 0;
};

/// "conv 'name'", for messages.
[[nodiscard]] std::string Label(const program::Operation& operation);

/// What the operation reads for a parameter that its definition has: nothing if it is not given.
[[nodiscard]] const program::Operands& OperandsOf(const program::Operation& operation, std::string_view parameter);

/// Calls `visit` with every value that the operation reads, as often as it reads it, fused steps included.
template <typename Visit>
void ForEachOperand(const program::Operation& operation, const Visit& visit) {
  const auto all = [&](const std::vector<program::Operands>& arguments) {
    for (const program::Operands& operands : arguments) {
      for (const program::ValueId id : operands) {
        if (id != program::kPrevious) visit(id);
      }
    }
  };
  all(operation.arguments);
  for (const program::FusedStep& step : operation.fused) all(step.arguments);
}

}  // namespace ulmora::engine::cpu
