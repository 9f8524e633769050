#include "engine/cpu/lower/Broadcasting.h"

#include "engine/cpu/RoundUp.h"

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

constexpr std::size_t kChannelAxis = 1;

/// In which layout an operand of that shape (of full rank) is read beside a result in `layout`: the same if it has
/// channels of its own, otherwise as it is.
Layout LayoutBeside(const Shape& shape, const Shape& result, Layout layout) {
  if (layout == Layout::Plain || shape[kChannelAxis] == result[kChannelAxis]) return layout;
  return Layout::Plain;
}

/// The loops of MemoryOrder, for channels that do not fill their last block, too.
std::vector<Loop> LoopsWithLanes(const Shape& shape, Layout layout) {
  if (layout != Layout::Blocked || FillsBlocks(shape)) return MemoryOrder(shape, layout);
  Shape filled = shape;
  filled[kChannelAxis] = RoundUp(shape[kChannelAxis], onednn::ChannelBlock());
  return MemoryOrder(filled, layout);
}

}  // namespace

std::vector<BroadcastPlan> BroadcastPlans(const LowerCall& call, const std::vector<BroadcastOperand>& operands,
                                          KeepsZero keepsZero) {
  const Shape& result = call.ShapeOf(call.result());
  BroadcastPlan plain;
  bool areFloats = call.IsFloat(call.result());
  bool sameRank = true;
  bool allChannels = true;
  for (const BroadcastOperand& operand : operands) {
    Shape shape = operand.constant ? operand.constant->shape() : call.ShapeOf(operand.value);
    areFloats =
        areFloats && (operand.constant ? operand.constant->storage() == Storage::Float : call.IsFloat(operand.value));
    const bool isConstant = operand.constant.has_value() || call.program.at(operand.value).constant.has_value();
    sameRank = sameRank && (isConstant || shape.size() == result.size());
    shape.insert(shape.begin(), result.size() - shape.size(), 1);
    allChannels = allChannels && HasChannels(result) && shape[kChannelAxis] == result[kChannelAxis];
    plain.shapes.push_back(std::move(shape));
    plain.layouts.push_back(Layout::Plain);
  }
  std::vector<BroadcastPlan> plans = {plain};
  if (!HasChannels(result) || !sameRank || !areFloats) return plans;
  for (const Layout layout : {Layout::ChannelsLast, Layout::Blocked}) {
    const bool lanesStayZero = FillsBlocks(result) || (keepsZero == KeepsZero::Yes && allChannels);
    if (layout == Layout::Blocked && !lanesStayZero) continue;
    BroadcastPlan plan = plain;
    plan.layout = layout;
    for (std::size_t k = 0; k < operands.size(); ++k) plan.layouts[k] = LayoutBeside(plan.shapes[k], result, layout);
    plans.push_back(std::move(plan));
  }
  return plans;
}

std::vector<std::int64_t> BroadcastCounts(const Shape& result, Layout layout) {
  std::vector<std::int64_t> counts;
  for (const Loop& loop : LoopsWithLanes(result, layout)) counts.push_back(loop.count);
  if (counts.empty()) counts.push_back(1);
  return counts;
}

std::vector<std::int64_t> OperandStrides(const Shape& operand, Layout operandLayout, const Shape& result,
                                         Layout layout) {
  std::vector<std::int64_t> strides;
  // In the same layout the operand's loops are the result's; where it has one element instead of many, it stands still.
  if (operandLayout == layout) {
    std::int64_t stride = 1;
    const std::vector<Loop> own = LoopsWithLanes(operand, layout);
    const std::vector<Loop> all = LoopsWithLanes(result, layout);
    strides.assign(std::max<std::size_t>(all.size(), 1), 0);
    for (std::size_t i = all.size(); i-- > 0;) {
      strides[i] = own[i].count == 1 && all[i].count != 1 ? 0 : stride;
      stride *= own[i].count;
    }
    return strides;
  }
  const std::vector<std::int64_t> plain = program::RowMajorStrides(operand);
  for (const Loop& loop : LoopsWithLanes(result, layout))
    strides.push_back(operand[loop.axis] == 1 ? 0 : plain[loop.axis]);
  return strides;
}

BufferId OperandBuffer(Emitter& emitter, const BroadcastOperand& operand, const Shape& shape, Layout layout) {
  const std::optional<Tensor>& known =
      operand.constant ? operand.constant : emitter.program().at(operand.value).constant;
  if (!known) return emitter.Source(operand.value, layout);
  if (layout == Layout::Plain) return emitter.Constant(*known);
  return emitter.Constant(*known, Descriptor(shape, Layout::Plain), Descriptor(shape, layout));
}

std::int64_t BroadcastBytes(const LowerCall& call, const BroadcastPlan& plan) {
  std::int64_t elements = ElementCount(call.ShapeOf(call.result()));
  for (const Shape& shape : plan.shapes) elements += ElementCount(shape);
  return 4 * elements;
}

BufferId BroadcastResult(Emitter& emitter, const program::Operation& operation,
                         const std::vector<BroadcastOperand>& operands, const BroadcastPlan& plan) {
  const program::ValueId result = operation.results.front();
  const TensorType& type = emitter.program().at(result).type;
  for (std::size_t k = 0; k < operands.size(); ++k) {
    if (operands[k].constant || emitter.program().at(operands[k].value).constant) continue;
    const TensorType& own = emitter.program().at(operands[k].value).type;
    const bool fits = own.shape == type.shape && plan.layouts[k] == plan.layout &&
                      ElementBytes(StorageOf(own.element)) == ElementBytes(StorageOf(type.element));
    if (fits && emitter.CanReuse(result, operands[k].value, plan.layout)) {
      return emitter.ResultOver(result, operands[k].value, plan.layout);
    }
  }
  return emitter.Result(result, plan.layout);
}

}  // namespace ulmora::engine::cpu
