// pixel_shuffle, pixel_unshuffle, depth_to_space, space_to_depth: copies between channels and space.

#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Move.h"

namespace ulmora::engine::cpu {
namespace {

/// Where place (by, bx) of a channel's block is found among the channels.
enum class Order { BlockInChannel, ChannelInBlock };

std::int64_t SideOf(const LowerCall& call) {
  return call.call.Int(call.call.definition().parameters.back().name);
}

template <Order kOrder>
std::vector<Form> LowerToSpace(const LowerCall& call) {
  const std::int64_t side = SideOf(call);
  Move move(call.call.ShapeOf("x"), call.ShapeOf(call.result()));
  const bool blockInChannel = kOrder == Order::BlockInChannel;
  const std::int64_t place = blockInChannel ? 1 : move.result[1];  // channels from one place to the next
  move.Keep(0, 0);
  move.Add(1, 1, [&](std::int64_t c) { return blockInChannel ? c * side * side : c; });
  move.Add(2, 2, [&](std::int64_t y) { return y / side; });
  move.Add(2, 1, [&](std::int64_t y) { return y % side * side * place; });
  move.Add(3, 3, [&](std::int64_t x) { return x / side; });
  move.Add(3, 1, [&](std::int64_t x) { return x % side * place; });
  return MoveForms(call, call.Operand("x"), {std::move(move)});
}

template <Order kOrder>
std::vector<Form> LowerToChannels(const LowerCall& call) {
  const std::int64_t side = SideOf(call);
  Move move(call.call.ShapeOf("x"), call.ShapeOf(call.result()));
  const bool blockInChannel = kOrder == Order::BlockInChannel;
  const std::int64_t channels = move.source[1];
  const auto placeOf = [&](std::int64_t c) { return blockInChannel ? c % (side * side) : c / channels; };
  move.Keep(0, 0);
  move.Add(1, 1, [&](std::int64_t c) { return blockInChannel ? c / (side * side) : c % channels; });
  move.Add(1, 2, [&](std::int64_t c) { return placeOf(c) / side; });
  move.Add(1, 3, [&](std::int64_t c) { return placeOf(c) % side; });
  move.Add(2, 2, [&](std::int64_t y) { return y * side; });
  move.Add(3, 3, [&](std::int64_t x) { return x * side; });
  return MoveForms(call, call.Operand("x"), {std::move(move)});
}

}  // namespace

std::vector<LoweringEntry> RearrangeLowerings() {
  return {{"pixel_shuffle", LowerToSpace<Order::BlockInChannel>},
          {"pixel_unshuffle", LowerToChannels<Order::BlockInChannel>},
          {"depth_to_space", LowerToSpace<Order::ChannelInBlock>},
          {"space_to_depth", LowerToChannels<Order::ChannelInBlock>}};
}

}  // namespace ulmora::engine::cpu
