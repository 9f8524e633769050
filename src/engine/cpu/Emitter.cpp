#include "engine/cpu/Emitter.h"

#include "engine/cpu/kernels/Parallel.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

std::size_t Index(program::ValueId id) {
  return static_cast<std::size_t>(id);
}

/// Uses that no operation ever makes: they keep outputs alive to the end.
constexpr std::int64_t kForever = std::int64_t{1} << 40;

}  // namespace

std::string Label(const program::Operation& operation) {
  return std::string(operation.definition->key) + " '" + operation.name + "'";
}

const program::Operands& OperandsOf(const program::Operation& operation, std::string_view parameter) {
  return operation.arguments.at(static_cast<std::size_t>(operation.definition->IndexOf(parameter)));
}

Emitter::Emitter(const program::Program& program, WeightStore& weights, void* input, void* output)
    : program_(program),
      weights_(weights),
      placements_(program.values.size()),
      pending_(program.values.size(), 0),
      current_(program.values.size(), 0) {
  for (const program::Operation& operation : program.operations) {
    ForEachOperand(operation, [&](program::ValueId id) { ++pending_[Index(id)]; });
  }
  for (const program::ValueId id : program.outputs) pending_[Index(id)] += kForever;
  const auto external = [&](program::ValueId id, void* address) {
    return NewBuffer(ByteCount(program.at(id).type, Layout::Plain), address);
  };
  Place(program.inputs.front(), Layout::Plain, external(program.inputs.front(), input));
  output_ = external(program.outputs.front(), output);
}

void Emitter::Begin(const program::Operation& operation) {
  operation_ = &operation;
  ForEachOperand(operation, [&](program::ValueId id) { ++current_[Index(id)]; });
}

void Emitter::End() {
  ForEachOperand(*operation_, [&](program::ValueId id) {
    --pending_[Index(id)];
    --current_[Index(id)];
  });
  operation_ = nullptr;
}

BufferId Emitter::Source(program::ValueId value, Layout layout) {
  Placement& placement = At(value);
  std::optional<BufferId>& here = placement[static_cast<std::size_t>(layout)];
  if (here) return *here;
  const program::Value& known = program_.at(value);
  const Shape& shape = known.type.shape;
  if (layout != Layout::Plain && StorageOf(known.type.element) != Storage::Float) {
    throw std::logic_error("value '" + known.name + "' holds no floats and has no layout but the plain one");
  }
  if (known.constant) {
    const bool isPlain = layout == Layout::Plain || SameBytes(shape, Layout::Plain, layout);
    const BufferId buffer =
        isPlain ? Constant(*known.constant)
                : Constant(*known.constant, Descriptor(shape, Layout::Plain), Descriptor(shape, layout));
    Place(value, layout, buffer);
    return buffer;
  }
  for (const Layout from : kAllLayouts) {
    const std::optional<BufferId> there = placement[static_cast<std::size_t>(from)];
    if (!there) continue;
    if (SameBytes(shape, from, layout)) {
      Place(value, layout, *there);
      return *there;
    }
    const BufferId buffer = NewBuffer(ByteCount(known.type, layout));
    Reorder(*there, Descriptor(shape, from), buffer, Descriptor(shape, layout));
    Place(value, layout, buffer);
    return buffer;
  }
  throw std::logic_error("value '" + known.name + "' is read before it is computed");
}

BufferId Emitter::SourceAs(program::ValueId value, const onednn::Desc& given, const onednn::Desc& wanted) {
  const program::Value& known = program_.at(value);
  if (known.constant) return Constant(*known.constant, given, wanted);
  const BufferId plain = Source(value, Layout::Plain);
  if (given == wanted) return plain;
  const BufferId buffer = NewBuffer(static_cast<std::int64_t>(wanted.get_size()));
  Reorder(plain, given, buffer, wanted);
  return buffer;
}

BufferId Emitter::Constant(const Tensor& constant, const onednn::Desc& given, const onednn::Desc& wanted) {
  void* address = const_cast<void*>(weights_.Prepare(constant, given, wanted));
  return NewBuffer(static_cast<std::int64_t>(wanted.get_size()), address);
}

BufferId Emitter::Constant(const Tensor& constant) {
  return NewBuffer(ByteCount(constant.type(), Layout::Plain), const_cast<void*>(weights_.Plain(constant)));
}

BufferId Emitter::PackedConstant(const Tensor& constant, std::int64_t bytes, const WeightStore::Packer& pack) {
  return NewBuffer(bytes, const_cast<void*>(weights_.Packed(constant, bytes, pack)));
}

BufferId Emitter::Result(program::ValueId value, Layout layout) {
  const BufferId buffer = IsOutput(value, layout) ? output_ : NewBuffer(ByteCount(program_.at(value).type, layout));
  Place(value, layout, buffer);
  return buffer;
}

bool Emitter::CanReuse(program::ValueId value, program::ValueId operand, Layout layout) {
  if (IsOutput(value, layout)) return false;
  const std::optional<BufferId> there = At(operand)[static_cast<std::size_t>(layout)];
  return there && IsFreeAfter(*there, operand) &&
         buffers_[static_cast<std::size_t>(*there)].bytes >= ByteCount(program_.at(value).type, layout);
}

BufferId Emitter::ResultOver(program::ValueId value, program::ValueId operand, Layout layout) {
  if (!CanReuse(value, operand, layout)) return Result(value, layout);
  const BufferId buffer = *At(operand)[static_cast<std::size_t>(layout)];
  Place(value, layout, buffer);
  return buffer;
}

BufferId Emitter::ResultFrom(program::ValueId value, program::ValueId operand, Layout layout) {
  const BufferId source = Source(operand, layout);
  const bool readElsewhere = current_[Index(operand)] > 1;
  const BufferId result = readElsewhere ? Result(value, layout) : ResultOver(value, operand, layout);
  if (result != source) CopyBytes(source, result, ByteCount(program_.at(value).type, layout));
  return result;
}

void Emitter::Alias(program::ValueId value, Layout layout, program::ValueId source, Layout sourceLayout) {
  Place(value, layout, Source(source, sourceLayout));
}

void Emitter::AliasPart(program::ValueId value, Layout layout, program::ValueId source, Layout sourceLayout,
                        std::int64_t offset) {
  const BufferId within = Source(source, sourceLayout);
  const BufferRecord outer = buffers_[static_cast<std::size_t>(within)];
  const BufferId part = NewBuffer(ByteCount(program_.at(value).type, layout));
  BufferRecord& record = buffers_[static_cast<std::size_t>(part)];
  if (outer.external != nullptr) record.external = static_cast<char*>(outer.external) + offset;
  record.whole = outer.whole.value_or(within);
  record.offset = outer.offset + offset;
  Place(value, layout, part);
}

BufferId Emitter::Scratch(std::int64_t bytes) {
  return NewBuffer(bytes);
}

void Emitter::Add(dnnl::primitive primitive, std::vector<Argument> arguments, const onednn::Desc& scratch,
                  const std::string& what) {
  if (const auto bytes = static_cast<std::int64_t>(scratch.get_size()); bytes > 0) {
    arguments.push_back({DNNL_ARG_SCRATCHPAD, scratch, Scratch(bytes)});
  }
  std::vector<BufferId> buffers;
  buffers.reserve(arguments.size());
  for (const Argument& argument : arguments) buffers.push_back(argument.buffer);
  std::string runner = what + onednn::ImplementationOf(primitive);
  Add(std::make_unique<PrimitiveStep>(std::move(primitive), std::move(arguments)), buffers, std::move(runner));
}

void Emitter::Add(Kernel kernel, std::vector<BufferId> buffers, std::string runner) {
  auto step = std::make_unique<KernelStep>(std::move(kernel), buffers);
  Add(std::move(step), buffers, std::move(runner));
}

void Emitter::Add(std::unique_ptr<Step> step, const std::vector<BufferId>& buffers, std::string runner) {
  for (const BufferId buffer : buffers) Touch(buffer);
  steps_.push_back({operation_ != nullptr ? Label(*operation_) : "output", std::move(runner), std::move(step)});
}

void Emitter::Reorder(BufferId from, const onednn::Desc& fromDescription, BufferId to,
                      const onednn::Desc& toDescription) {
  const dnnl::reorder::primitive_desc description(onednn::CpuEngine(), fromDescription, onednn::CpuEngine(),
                                                  toDescription, onednn::PlainAttributes());
  Add(dnnl::reorder(description), {{DNNL_ARG_FROM, fromDescription, from}, {DNNL_ARG_TO, toDescription, to}},
      description.scratchpad_desc(), "reorder ");
}

void Emitter::Finish() {
  const program::ValueId output = program_.outputs.front();
  const BufferId buffer = Source(output, Layout::Plain);
  if (buffer != output_) CopyBytes(buffer, output_, ByteCount(program_.at(output).type, Layout::Plain));
}

BufferId Emitter::NewBuffer(std::int64_t bytes, void* external) {
  BufferRecord record;
  record.bytes = bytes;
  record.external = external;
  buffers_.push_back(record);
  tenants_.emplace_back();
  return static_cast<BufferId>(buffers_.size() - 1);
}

bool Emitter::IsFreeAfter(BufferId buffer, program::ValueId operand) {
  const auto index = static_cast<std::size_t>(buffer);
  // Beside a part there may be others, which its tenants say nothing of.
  if (buffers_[index].external != nullptr || buffers_[index].whole) return false;
  // Values that nobody will read leave for good: a long chain of operations in one buffer must not be looked through
  // again and again.
  std::erase_if(tenants_[index], [&](program::ValueId id) { return pending_[Index(id)] == 0; });
  // Another value in the same buffer may have its elements in another order, so it must not be read by this operation.
  return std::all_of(tenants_[index].begin(), tenants_[index].end(),
                     [&](program::ValueId id) { return id == operand && pending_[Index(id)] == current_[Index(id)]; });
}

bool Emitter::IsOutput(program::ValueId value, Layout layout) const {
  if (value != program_.outputs.front()) return false;
  return layout == Layout::Plain || SameBytes(program_.at(value).type.shape, layout, Layout::Plain);
}

void Emitter::Place(program::ValueId value, Layout layout, BufferId buffer) {
  At(value)[static_cast<std::size_t>(layout)] = buffer;
  tenants_[static_cast<std::size_t>(buffer)].push_back(value);
  const std::optional<BufferId> whole = buffers_[static_cast<std::size_t>(buffer)].whole;
  if (whole) tenants_[static_cast<std::size_t>(*whole)].push_back(value);
}

void Emitter::Touch(BufferId buffer) {
  const BufferId owner = buffers_[static_cast<std::size_t>(buffer)].whole.value_or(buffer);
  BufferRecord& record = buffers_[static_cast<std::size_t>(owner)];
  const auto step = static_cast<std::int64_t>(steps_.size());
  if (record.first < 0) record.first = step;
  record.last = step;
}

void Emitter::CopyBytes(BufferId from, BufferId to, std::int64_t bytes) {
  Add([bytes](const Operands& at) { ParallelCopy(at.at<char>(0), at.at<char>(1), bytes); }, {from, to});
}

}  // namespace ulmora::engine::cpu
