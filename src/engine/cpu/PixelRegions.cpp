#include "engine/cpu/PixelRegions.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <set>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using program::Operation;
using program::Program;
using program::ValueId;
using Kind = PixelStep::Kind;

/// More channels than this side by side would leave too few pixels to a run.
constexpr std::int64_t kMostChannels = 8192;

std::size_t Index(ValueId id) {
  return static_cast<std::size_t>(id);
}

class Finder {
 public:
  Finder(Program& program, const ExecutableOptions& options)
      : program_(program), uses_(program.values.size(), 0), producer_(program.values.size()) {
    for (const ValueId id : program.outputs) ++uses_[Index(id)];
    for (std::size_t i = 0; i < program.operations.size(); ++i) {
      const Operation& operation = program.operations[i];
      ForEachOperand(operation, [&](ValueId id) { ++uses_[Index(id)]; });
      for (const ValueId id : operation.results) producer_[Index(id)] = i;
      const program::OpCall call(program, operation);
      steps_.push_back(PixelStepsOf({program, operation, call, options, {}}));
    }
  }

  PixelRegions Run() {
    // From the end: a region is named by the operation whose result leaves it.
    for (std::size_t root = program_.operations.size(); root-- > 0;) {
      if (steps_[root]) Form(root);
    }
    std::erase_if(program_.operations, [](const Operation& operation) { return operation.definition == nullptr; });
    return std::move(regions_);
  }

 private:
  void Form(std::size_t root) {
    if (program_.operations[root].results.size() != 1) return;
    std::set<std::size_t> members = {root};
    std::int64_t channels = ChannelsOf(root);
    // An operation joins when all its readers have; one that is read in several places waits for the last of them.
    for (bool grown = true; grown;) {
      grown = false;
      for (const std::size_t candidate : ProducersFor(members)) {
        const std::int64_t more = ChannelsOf(candidate);
        if (!Serves(candidate, members) || channels + more > kMostChannels) continue;
        members.insert(candidate);
        channels += more;
        grown = true;
      }
    }
    const bool hasMatrix = std::ranges::any_of(members, [&](std::size_t member) {
      return std::ranges::any_of(*steps_[member], [](const ValueStep& step) { return step.step.kind == Kind::Matrix; });
    });
    if (hasMatrix && members.size() > 1) Replace(root, members);
  }

  [[nodiscard]] std::int64_t ChannelsOf(std::size_t position) const {
    std::int64_t channels = 0;
    for (const ValueStep& step : *steps_[position]) channels += step.firstChannel ? 0 : step.step.channels;
    return channels;
  }

  /// Operations on pixels outside of which members read.
  [[nodiscard]] std::set<std::size_t> ProducersFor(const std::set<std::size_t>& members) const {
    std::set<std::size_t> producers;
    for (const std::size_t member : members) {
      ForEachOperand(program_.operations[member], [&](ValueId id) {
        const std::optional<std::size_t> producer = producer_[Index(id)];
        if (producer && steps_[*producer] && !members.contains(*producer)) producers.insert(*producer);
      });
    }
    return producers;
  }

  /// True if the operation has the pixels of the members and only they read its results.
  [[nodiscard]] bool Serves(std::size_t candidate, const std::set<std::size_t>& members) const {
    const Operation& operation = program_.operations[candidate];
    const Shape& own = program_.at(operation.results.front()).type.shape;
    const Shape& theirs = program_.at(program_.operations[*members.rbegin()].results.front()).type.shape;
    for (const std::size_t axis : {0U, 2U, 3U}) {
      if (own[axis] != theirs[axis]) return false;
    }
    return std::ranges::all_of(operation.results, [&](ValueId result) {
      std::size_t inside = 0;
      for (const std::size_t member : members) {
        ForEachOperand(program_.operations[member], [&](ValueId id) { inside += id == result ? 1 : 0; });
      }
      return inside == uses_[Index(result)];
    });
  }

  void Replace(std::size_t root, const std::set<std::size_t>& members) {
    Operation region{
        &PixelRegionDefinition(), program_.operations[root].name, {{}}, program_.operations[root].results, {}};
    std::vector<ValueStep> steps;
    std::set<ValueId> inner;
    for (const std::size_t member : members) {
      ForEachOperand(program_.operations[member], [&](ValueId id) {
        std::vector<ValueId>& operands = region.arguments.front();
        const bool isKnown = program_.at(id).constant || inner.contains(id) || std::ranges::count(operands, id) > 0;
        if (!isKnown) operands.push_back(id);
      });
      for (const ValueId result : program_.operations[member].results) inner.insert(result);
      steps.insert(steps.end(), steps_[member]->begin(), steps_[member]->end());
      program_.operations[member] = Operation{};
      steps_[member].reset();
    }
    regions_.emplace(region.results.front(), std::move(steps));
    program_.operations[root] = std::move(region);
  }

  Program& program_;
  std::vector<std::size_t> uses_;
  std::vector<std::optional<std::size_t>> producer_;
  std::vector<std::optional<std::vector<ValueStep>>> steps_;  ///< of each operation; none once it has a region
  PixelRegions regions_;
};

}  // namespace

const program::OpDefinition& PixelRegionDefinition() {
  static const program::OpDefinition definition = {"pixel_region", {{"values", program::Presence::Variadic}}};
  return definition;
}

PixelRegions FormPixelRegions(Program& program, const ExecutableOptions& options) {
  if (!options.pixelRegions || FindPixelKernels(onednn::ChannelBlock()) == nullptr) return {};
  return Finder(program, options).Run();
}

}  // namespace ulmora::engine::cpu
