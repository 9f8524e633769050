#include "engine/cpu/lower/Move.h"

#include <algorithm>
#include <memory>
#include <set>

namespace ulmora::engine::cpu {
namespace {

constexpr std::size_t kChannelAxis = 1;

/// Offsets in the source for every index along one dimension of the result, kFiller included.
std::vector<std::int64_t> OffsetsAlong(const Move& move, Layout source, std::size_t axis) {
  std::vector<std::int64_t> offsets(static_cast<std::size_t>(move.result[axis]), 0);
  for (const Share& share : move.shares[axis]) {
    const std::vector<std::int64_t> along = AxisOffsets(move.source, source, share.axis);
    for (std::size_t i = 0; i < offsets.size(); ++i) {
      const std::int64_t index = share.indices[i];
      if (index == kFiller || offsets[i] == kFiller) {
        offsets[i] = kFiller;
      } else {
        offsets[i] += along[static_cast<std::size_t>(index)];
      }
    }
  }
  return offsets;
}

/// Whether offsets of blocked channels may be added up: true if the sum of any shares and the base has the offset that
/// is the sum of theirs.
bool AddsUpInBlocks(const Move& move) {
  const std::vector<std::int64_t> along = AxisOffsets(move.source, Layout::Blocked, kChannelAxis);
  const auto size = static_cast<std::int64_t>(along.size());
  std::set<std::int64_t> sums = {move.base[kChannelAxis]};
  for (const std::vector<Share>& ofAxis : move.shares) {
    for (const Share& share : ofAxis) {
      if (share.axis != kChannelAxis) continue;
      std::set<std::int64_t> next;
      const std::set<std::int64_t> distinct(share.indices.begin(), share.indices.end());
      for (const std::int64_t part : distinct) {
        if (part == kFiller) continue;
        for (const std::int64_t sum : sums) {
          if (sum + part >= size) return false;
          const auto at = [&](std::int64_t index) { return along[static_cast<std::size_t>(index)]; };
          if (at(sum + part) != at(sum) + at(part)) return false;
          next.insert(sum + part);
        }
      }
      sums = std::move(next);
    }
  }
  return true;
}

/// The loops over the result's blocked channels, block by block and lane by lane; false if the source is not a sum of
/// both.
bool SplitChannels(const std::vector<std::int64_t>& offsets, std::int64_t block, CopyLoop& blocks, CopyLoop& lanes) {
  const auto lane = static_cast<std::size_t>(block);
  for (std::size_t i = 0; i < offsets.size(); i += lane) blocks.sources.push_back(offsets[i]);
  const auto reference = std::ranges::find_if(blocks.sources, [](std::int64_t offset) { return offset != kFiller; });
  const auto first = static_cast<std::size_t>(reference - blocks.sources.begin()) * lane;
  for (std::size_t i = 0; i < lane; ++i) {
    const bool known = first < offsets.size() && offsets[first + i] != kFiller;
    lanes.sources.push_back(known ? offsets[first + i] - offsets[first] : 0);
  }
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    const std::int64_t outer = blocks.sources[i / lane];
    if (offsets[i] != (outer == kFiller ? kFiller : outer + lanes.sources[i % lane])) return false;
  }
  return true;
}

/// True if the source moves as far as the destination does at every iteration.
bool Counts(const CopyLoop& loop) {
  for (std::size_t i = 0; i < loop.sources.size(); ++i) {
    const std::int64_t moved = static_cast<std::int64_t>(i) * loop.stride;
    if (loop.sources[i] == kFiller || loop.sources[i] != loop.sources.front() + moved) return false;
  }
  return true;
}

void Judge(MoveLoops& result) {
  result.isRange = std::ranges::all_of(result.loops, Counts);
  if (result.isRange) {
    result.start = result.base;
    for (const CopyLoop& loop : result.loops) result.start += loop.sources.empty() ? 0 : loop.sources.front();
  }
  const auto innermost = std::find_if(result.loops.rbegin(), result.loops.rend(),
                                      [](const CopyLoop& loop) { return loop.sources.size() > 1; });
  if (innermost == result.loops.rend()) return;
  const std::vector<std::int64_t>& sources = innermost->sources;
  std::size_t breaks = 0;
  for (std::size_t i = 1; i < sources.size(); ++i) breaks += sources[i] != sources[i - 1] + 1 ? 1 : 0;
  result.isContiguous = breaks * 4 <= sources.size();
}

void EmitMoves(Emitter& emitter, const program::Operation& operation, program::ValueId source,
               const std::vector<Move>& moves, Layout from, Layout to, std::array<char, 4> filler) {
  const std::int64_t elementBytes = ElementBytes(StorageOf(emitter.program().at(source).type.element));
  for (std::size_t i = 0; i < moves.size(); ++i) {
    const program::ValueId result = operation.results[i];
    MoveLoops loops = *LoopsOf(moves[i], from, to);
    if (loops.isRange) {
      const bool isWhole = ElementCount(moves[i].source) == ElementCount(moves[i].result);
      if (isWhole) {
        emitter.Alias(result, to, source, from);
      } else {
        emitter.AliasPart(result, to, source, from, loops.start * elementBytes);
      }
      continue;
    }
    const std::int64_t baseBytes = loops.base * elementBytes;
    const auto copy = std::make_shared<const SeparableCopy>(std::move(loops.loops), elementBytes);
    const BufferId read = emitter.Source(source, from);
    emitter.Add([copy, baseBytes,
                 filler](const Operands& at) { copy->Run(at.at<char>(0) + baseBytes, at.at<char>(1), filler.data()); },
                {read, emitter.Result(result, to)});
  }
}

double CostOf(const std::vector<Move>& moves, Layout from, Layout to) {
  constexpr double kScatteredReads = 2.5;
  double cost = 0.0;
  for (const Move& move : moves) {
    const MoveLoops loops = *LoopsOf(move, from, to);
    if (loops.isRange) continue;
    cost += MemoryCost(8 * ElementCount(move.result)) * (loops.isContiguous ? 1.0 : kScatteredReads);
  }
  return cost;
}

}  // namespace

std::optional<MoveLoops> LoopsOf(const Move& move, Layout source, Layout result) {
  if (source == Layout::Blocked && (!FillsBlocks(move.source) || !AddsUpInBlocks(move))) return std::nullopt;
  if (result == Layout::Blocked && !FillsBlocks(move.result)) return std::nullopt;
  MoveLoops loops;
  for (std::size_t axis = 0; axis < move.source.size(); ++axis) {
    if (move.base[axis] != 0) {
      loops.base += AxisOffsets(move.source, source, axis)[static_cast<std::size_t>(move.base[axis])];
    }
  }
  std::int64_t stride = ElementCount(move.result);
  const std::vector<Loop> order = MemoryOrder(move.result, result);
  for (const Loop& loop : order) {
    stride /= std::max<std::int64_t>(loop.count, 1);
    const bool isChannels = result == Layout::Blocked && loop.axis == kChannelAxis;
    if (!isChannels) {
      loops.loops.push_back({stride, OffsetsAlong(move, source, loop.axis)});
    } else {
      loops.loops.push_back({stride, {}});
    }
  }
  if (result == Layout::Blocked) {
    const std::vector<std::int64_t> offsets = OffsetsAlong(move, source, kChannelAxis);
    if (!SplitChannels(offsets, order.back().count, loops.loops[1], loops.loops.back())) return std::nullopt;
  }
  Judge(loops);
  return loops;
}

std::vector<std::pair<Layout, Layout>> PossibleLayouts(const Move& move) {
  std::vector<std::pair<Layout, Layout>> pairs;
  for (const Layout from : LayoutsOf(move.source)) {
    for (const Layout to : LayoutsOf(move.result)) {
      if (LoopsOf(move, from, to)) pairs.emplace_back(from, to);
    }
  }
  return pairs;
}

std::vector<Form> MoveForms(const LowerCall& call, program::ValueId source, std::vector<Move> moves,
                            std::array<char, 4> filler) {
  const bool isFloat = call.IsFloat(source);
  std::vector<Form> forms;
  for (const auto& [from, to] : PossibleLayouts(moves.front())) {
    if (!isFloat && (from != Layout::Plain || to != Layout::Plain)) continue;
    const auto possible = [f = from, t = to](const Move& move) { return LoopsOf(move, f, t).has_value(); };
    if (!std::ranges::all_of(moves, possible)) continue;
    Form form;
    form.plan = {{{source, from}}, to, CostOf(moves, from, to)};
    form.emit = [source, moves, from = from, to = to, filler](Emitter& emitter, const program::Operation& operation) {
      EmitMoves(emitter, operation, source, moves, from, to, filler);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace ulmora::engine::cpu
