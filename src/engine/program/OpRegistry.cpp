#include "engine/program/OpRegistry.h"

#include "engine/program/ops/Families.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ulmora::engine::program {
namespace {

/// The families, one line each. A plain list: nothing depends on the order in which objects are initialised.
std::vector<OpDefinition> Concatenate() {
  std::vector<OpDefinition> all;
  const auto append = [&all](std::vector<OpDefinition> family) {
    std::move(family.begin(), family.end(), std::back_inserter(all));
  };
  append(ActivationOps());
  append(AttentionOps());
  append(CastOps());
  append(CompositeOps());
  append(ConstexprLookupOps());
  append(ConstexprOps());
  append(ConvOps());
  append(CropResizeOps());
  append(ElementwiseBinaryOps());
  append(ElementwiseUnaryOps());
  append(GatherOps());
  append(JoinOps());
  append(LinearOps());
  append(NormalizationOps());
  append(PadOps());
  append(PoolOps());
  append(QuantizeOps());
  append(RearrangeOps());
  append(ReductionOps());
  append(ReshapeOps());
  append(ResizeOps());
  append(SamplingOps());
  append(ScatterNdOps());
  append(ScatterOps());
  append(SliceOps());
  append(SortOps());
  append(WindowOps());
  return all;
}

std::vector<OpDefinition> BuildTable() {
  std::vector<OpDefinition> all = Concatenate();
  std::ranges::sort(all, {}, &OpDefinition::key);
  const auto twin = std::ranges::adjacent_find(all, {}, &OpDefinition::key);
  if (twin != all.end()) throw std::logic_error("operation " + std::string(twin->key) + " is defined twice");
  for (const OpDefinition& definition : all) {
    if (definition.infer == nullptr || definition.evaluate == nullptr) {
      throw std::logic_error("operation " + std::string(definition.key) + " lacks its shape rule or its evaluation");
    }
  }
  return all;
}

const std::vector<OpDefinition>& Table() {
  static const std::vector<OpDefinition> table = BuildTable();
  return table;
}

}  // namespace

int OpDefinition::IndexOf(std::string_view parameter) const noexcept {
  const auto found = std::ranges::find(parameters, parameter, &Parameter::name);
  return found == parameters.end() ? -1 : static_cast<int>(found - parameters.begin());
}

const OpDefinition* FindOp(std::string_view key) {
  const std::vector<OpDefinition>& table = Table();
  const auto found = std::ranges::lower_bound(table, key, {}, &OpDefinition::key);
  return found != table.end() && found->key == key ? &*found : nullptr;
}

std::span<const OpDefinition> AllOps() {
  return Table();
}

}  // namespace ulmora::engine::program
