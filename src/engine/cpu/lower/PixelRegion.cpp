#include "engine/cpu/lower/PixelRegion.h"

#include "engine/cpu/MemoryPlan.h"

#include <omp.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using program::Program;
using program::ValueId;
using Kind = PixelStep::Kind;

/// The steps with the places of all their operands, and the values outside that some of them reach.
struct Chain {
  std::vector<PixelStep> steps;
  std::vector<const ValueStep*> origins;        ///< of each step; null for loads and the store
  std::vector<std::optional<ValueId>> tensors;  ///< what each step loads, stores or scales by
  std::int64_t channels = 0;                    ///< that the scratch numbers
};

/// Gives every image of the region its place in the scratch, for as long as a step needs it.
class Placement {
 public:
  Placement(const Program& program, const std::vector<ValueStep>& steps) : program_(program) {
    for (const ValueStep& step : steps) Append(step);
    const ValueId result = steps.back().to;
    PixelStep store;
    store.kind = Kind::Store;
    store.channels = ChannelsOf(result);
    Add(store, nullptr, result, result, std::nullopt, std::nullopt);
  }

  Chain Finish() {
    const MemoryPlan plan = PlanMemory(slots_);
    chain_.channels = plan.bytes / kBytes;
    const auto channel = [&](const Place& place) { return plan.offsets[place.slot] / kBytes + place.channel; };
    for (std::size_t i = 0; i < chain_.steps.size(); ++i) {
      chain_.steps[i].from = channel(operands_[i][0]);
      chain_.steps[i].other = channel(operands_[i][1]);
      chain_.steps[i].to = channel(operands_[i][2]);
    }
    return std::move(chain_);
  }

 private:
  static constexpr std::int64_t kBytes = sizeof(float);

  /// Channels of a slot, from one on.
  struct Place {
    std::size_t slot = 0;
    std::int64_t channel = 0;
  };

  [[nodiscard]] std::int64_t ChannelsOf(ValueId id) const { return program_.at(id).type.shape[1]; }

  void Append(const ValueStep& step) {
    if (!places_.contains(step.from)) LoadImage(step.from);
    if (step.other && !places_.contains(*step.other)) LoadImage(*step.other);
    if (step.firstChannel) {
      const Place whole = places_.at(step.from);
      places_[step.to] = {whole.slot, whole.channel + *step.firstChannel};
      return;
    }
    Add(step.step, &step, step.factors, step.from, step.other, step.to);
  }

  void LoadImage(ValueId id) {
    PixelStep load;
    load.kind = Kind::Load;
    load.channels = ChannelsOf(id);
    Add(load, nullptr, id, std::nullopt, std::nullopt, id);
  }

  void Add(const PixelStep& step, const ValueStep* origin, std::optional<ValueId> tensor, std::optional<ValueId> from,
           std::optional<ValueId> other, std::optional<ValueId> to) {
    if (to && !places_.contains(*to)) {
      places_[*to] = {slots_.size(), 0};
      slots_.push_back({ChannelsOf(*to) * kBytes, std::ssize(chain_.steps), 0});
    }
    std::array<Place, 3> places;
    const std::array<std::optional<ValueId>, 3> operands = {from, other, to};
    for (std::size_t i = 0; i < operands.size(); ++i) {
      // What a step has no use for stands for something that it has.
      places[i] = places_.at(operands[i].value_or(from ? *from : *to));
      slots_[places[i].slot].last = std::ssize(chain_.steps);
    }
    chain_.steps.push_back(step);
    chain_.origins.push_back(origin);
    chain_.tensors.push_back(tensor);
    operands_.push_back(places);
  }

  const Program& program_;
  std::map<ValueId, Place> places_;
  std::vector<Block> slots_;
  std::vector<std::array<Place, 3>> operands_;
  Chain chain_;
};

RunStrides StridesOf(const Shape& shape, Layout layout) {
  const std::int64_t lanes = onednn::ChannelBlock();
  const std::int64_t pixels = shape[2] * shape[3];
  if (layout == Layout::Blocked) return {shape[1] * pixels, pixels * lanes, lanes};
  return {shape[1] * pixels, lanes, shape[1]};
}

/// Buffer of an optional constant with `count` elements; of `otherwise` if it is absent.
BufferId ConstantOr(Emitter& emitter, std::optional<ValueId> given, std::int64_t count, float otherwise) {
  if (given) return emitter.Constant(*emitter.program().at(*given).constant);
  return emitter.Constant(Tensor::Floats({count}, std::vector<float>(static_cast<std::size_t>(count), otherwise)));
}

/// Adds the buffers of a step to those of all, and notes which is which.
class Buffers {
 public:
  enum Use : std::size_t { kTensor, kWeights, kBias };
  struct Slot {
    std::size_t step;
    Use use;
  };

  void Add(std::size_t step, Use use, BufferId buffer) {
    slots_.push_back({step, use});
    ids.push_back(buffer);
  }

  /// Tells the steps the addresses.
  void Bind(const Operands& at, std::vector<PixelStep>& steps) const {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      PixelStep& step = steps[slots_[i].step];
      switch (slots_[i].use) {
        case kTensor:
          step.tensor = at.at(i);
          break;
        case kWeights:
          step.weights = at.at(i);
          break;
        case kBias:
          step.bias = at.at(i);
          break;
      }
    }
  }

  std::vector<BufferId> ids;

 private:
  std::vector<Slot> slots_;
};

void AddParameters(Emitter& emitter, const PixelKernels& kernels, std::size_t index, const ValueStep& step,
                   Buffers& buffers) {
  const std::int64_t channels = step.step.channels;
  if (step.step.kind == Kind::Norm) {
    buffers.Add(index, Buffers::kWeights, ConstantOr(emitter, step.weights, channels, 1.0F));
    buffers.Add(index, Buffers::kBias, ConstantOr(emitter, step.bias, channels, 0.0F));
  } else if (step.step.kind == Kind::Matrix) {
    const Tensor& weights = *emitter.program().at(*step.weights).constant;
    const std::int64_t inputs = step.step.inputs;
    const BufferId packed =
        emitter.PackedConstant(weights, inputs * channels * static_cast<std::int64_t>(sizeof(float)),
                               [&](const float* from, float* to) { kernels.pack(from, channels, inputs, to); });
    buffers.Add(index, Buffers::kWeights, packed);
    if (step.bias) buffers.Add(index, Buffers::kBias, ConstantOr(emitter, step.bias, channels, 0.0F));
  }
}

void EmitChain(const Chain& chain, const PixelKernels& kernels, const PixelPlan& plan, Layout layout, Emitter& emitter,
               const program::Operation& region) {
  const ValueId result = region.results.front();
  std::vector<PixelStep> steps = chain.steps;
  Buffers buffers;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (chain.origins[i] != nullptr) AddParameters(emitter, kernels, i, *chain.origins[i], buffers);
    if (!chain.tensors[i]) continue;
    const ValueId tensor = *chain.tensors[i];
    if (steps[i].kind == Kind::Scale) {
      buffers.Add(i, Buffers::kTensor, emitter.Source(tensor, Layout::Plain));
      continue;
    }
    steps[i].strides = StridesOf(emitter.program().at(tensor).type.shape, layout);
    if (tensor != result) buffers.Add(i, Buffers::kTensor, emitter.Source(tensor, layout));
  }
  // A run has read its pixels of every operand before it writes them.
  BufferId destination = 0;
  const auto free = std::ranges::find_if(region.arguments.front(), [&](ValueId operand) {
    return emitter.program().at(operand).type.shape == emitter.program().at(result).type.shape &&
           emitter.CanReuse(result, operand, layout);
  });
  if (free != region.arguments.front().end()) {
    destination = emitter.ResultOver(result, *free, layout);
  } else {
    destination = emitter.Result(result, layout);
  }
  buffers.Add(steps.size() - 1, Buffers::kTensor, destination);
  std::vector<BufferId> ids = buffers.ids;
  ids.push_back(emitter.Scratch(plan.scratchBytes()));
  emitter.Add(
      [steps, buffers, plan](const Operands& at) mutable {
        buffers.Bind(at, steps);
        plan.Run(steps.data(), steps.size(), at.at(buffers.ids.size()));
      },
      std::move(ids), "pixels");
}

}  // namespace

std::vector<Form> PixelRegionForms(const Program& program, const program::Operation& region,
                                   const std::vector<ValueStep>& steps) {
  const PixelKernels& kernels = *FindPixelKernels(onednn::ChannelBlock());
  const auto kept = std::make_shared<const std::vector<ValueStep>>(steps);
  const Shape& shape = program.at(region.results.front()).type.shape;
  const std::int64_t pixels = shape[2] * shape[3];
  const Chain chain = Placement(program, *kept).Finish();
  const PixelPlan plan(kernels, shape[0], pixels, chain.channels, omp_get_max_threads());
  double operations = 0.0;
  for (const ValueStep& step : steps) {
    operations += 2.0 * static_cast<double>(step.step.inputs * step.step.channels * shape[0] * pixels);
  }
  std::int64_t moved = ElementCount(shape);
  for (const ValueId operand : region.arguments.front()) moved += ElementCount(program.at(operand).type.shape);
  std::vector<Form> forms;
  for (const Layout layout : {Layout::Blocked, Layout::ChannelsLast}) {
    Form form;
    for (const ValueId operand : region.arguments.front()) {
      const bool isFactor = !IsImage(program, operand);
      form.plan.needs.push_back({operand, isFactor ? Layout::Plain : layout});
    }
    form.plan.result = layout;
    form.plan.cost = std::max(ArithmeticCost(operations), MemoryCost(4 * moved));
    form.emit = [kept, chain, &kernels, plan, layout](Emitter& emitter, const program::Operation& operation) {
      EmitChain(chain, kernels, plan, layout, emitter, operation);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace ulmora::engine::cpu
