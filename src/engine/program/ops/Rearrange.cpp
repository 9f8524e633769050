// Between channels, batch and space, x [N, C, H, W]: pixel_shuffle, pixel_unshuffle, depth_to_space, space_to_depth,
// space_to_batch, batch_to_space.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <string>

namespace ulmora::engine::program {
namespace {

void RequirePlanar(const OpCall& call) {
  RequireData(call, "x");
  RequireRank(call, "x", 4, 4);
}

void RequireMultiple(const OpCall& call, std::size_t axis, std::int64_t factor) {
  const Shape& x = call.ShapeOf("x");
  if (x[axis] % factor != 0) {
    call.Fail("x has shape " + ToString(x) + ", expected a multiple of " + std::to_string(factor) + " along axis " +
              std::to_string(axis));
  }
}

/// The only parameter beside x: the side of a block.
std::int64_t BlockSide(const OpCall& call) {
  const std::string_view parameter = call.definition().parameters.back().name;
  const std::int64_t side = call.Int(parameter);
  // Beyond 2^15, the square passes every tensor that we hold.
  if (side < 1 || side > (1 << 15)) {
    call.Fail(std::string(parameter) + " is " + std::to_string(side) + ", expected 1 to 32768");
  }
  return side;
}

/// Channels become blocks.
std::vector<TensorType> InferToSpace(const OpCall& call) {
  RequirePlanar(call);
  const std::int64_t side = BlockSide(call);
  RequireMultiple(call, 1, side * side);
  TensorType type = call.Type("x");
  type.shape = {type.shape[0], type.shape[1] / (side * side), type.shape[2] * side, type.shape[3] * side};
  return {type};
}

/// Blocks become channels.
std::vector<TensorType> InferToChannels(const OpCall& call) {
  RequirePlanar(call);
  const std::int64_t side = BlockSide(call);
  RequireMultiple(call, 2, side);
  RequireMultiple(call, 3, side);
  TensorType type = call.Type("x");
  type.shape = {type.shape[0], type.shape[1] * side * side, type.shape[2] / side, type.shape[3] / side};
  return {type};
}

/// Where place (by, bx) of channel c's block is found among the channels: blocks within channels (as PyTorch orders
/// them), or channels within blocks (as TensorFlow does).
enum class Order { BlockInChannel, ChannelInBlock };

template <Order kOrder>
std::vector<Tensor> EvaluateToSpace(const OpCall& call) {
  const std::int64_t side = BlockSide(call);
  const Shape result = InferToSpace(call).front().shape;
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Take(call.Value("x"), result, [&](const Shape& i) {
    const std::int64_t place = i[2] % side * side + i[3] % side;
    const std::int64_t channel =
        kOrder == Order::BlockInChannel ? i[1] * side * side + place : place * result[1] + i[1];
    return Offset({i[0], channel, i[2] / side, i[3] / side}, strides);
  })};
}

template <Order kOrder>
std::vector<Tensor> EvaluateToChannels(const OpCall& call) {
  const std::int64_t side = BlockSide(call);
  const Shape result = InferToChannels(call).front().shape;
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> strides = RowMajorStrides(x);
  return {Take(call.Value("x"), result, [&](const Shape& i) {
    const std::int64_t channel = kOrder == Order::BlockInChannel ? i[1] / (side * side) : i[1] % x[1];
    const std::int64_t place = kOrder == Order::BlockInChannel ? i[1] % (side * side) : i[1] / x[1];
    return Offset({i[0], channel, i[2] * side + place / side, i[3] * side + place % side}, strides);
  })};
}

/// Blocks that travel between space and batch, with the border that is added before or removed after.
struct BatchBlocks {
  std::int64_t height = 1;
  std::int64_t width = 1;
  std::int64_t top = 0;
  std::int64_t bottom = 0;
  std::int64_t left = 0;
  std::int64_t right = 0;
};

BatchBlocks BlocksOf(const OpCall& call, std::string_view border) {
  const std::vector<std::int64_t> sides = IntsOr(call, "block_shape", 2, 1, 1);
  const Tensor& amounts = call.Value(border);
  RequireInts(call, border);
  RequireShape(call, border, {2, 2});
  for (const std::int32_t amount : amounts.ints()) {
    if (amount < 0)
      call.Fail(std::string(border) + " has an entry " + std::to_string(amount) + ", expected at least 0");
  }
  return {sides[0], sides[1], amounts.ints()[0], amounts.ints()[1], amounts.ints()[2], amounts.ints()[3]};
}

std::vector<TensorType> InferSpaceToBatch(const OpCall& call) {
  RequirePlanar(call);
  const BatchBlocks blocks = BlocksOf(call, "paddings");
  TensorType type = call.Type("x");
  const std::int64_t height = type.shape[2] + blocks.top + blocks.bottom;
  const std::int64_t width = type.shape[3] + blocks.left + blocks.right;
  if (height % blocks.height != 0 || width % blocks.width != 0) {
    call.Fail("padded size " + ToString({height, width}) + " is no multiple of block_shape " +
              ToString({blocks.height, blocks.width}));
  }
  // Below 2^31 each, one block at a time, so that no product can overflow before ElementCount sees it.
  if (CountElements(call, {type.shape[0], blocks.height, blocks.width}) > INT32_MAX)
    call.Fail("block_shape is too large");
  type.shape = {type.shape[0] * blocks.height * blocks.width, type.shape[1], height / blocks.height,
                width / blocks.width};
  return {type};
}

std::vector<Tensor> EvaluateSpaceToBatch(const OpCall& call) {
  const BatchBlocks blocks = BlocksOf(call, "paddings");
  const Shape result = InferSpaceToBatch(call).front().shape;
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> strides = RowMajorStrides(x);
  return {Take(call.Value("x"), result, [&](const Shape& i) {
    const std::int64_t place = i[0] / x[0];
    const std::int64_t row = i[2] * blocks.height + place / blocks.width - blocks.top;
    const std::int64_t column = i[3] * blocks.width + place % blocks.width - blocks.left;
    if (row < 0 || row >= x[2] || column < 0 || column >= x[3]) return kFill;
    return Offset({i[0] % x[0], i[1], row, column}, strides);
  })};
}

std::vector<TensorType> InferBatchToSpace(const OpCall& call) {
  RequirePlanar(call);
  const BatchBlocks blocks = BlocksOf(call, "crops");
  TensorType type = call.Type("x");
  RequireMultiple(call, 0, blocks.height * blocks.width);
  const std::int64_t height = type.shape[2] * blocks.height - blocks.top - blocks.bottom;
  const std::int64_t width = type.shape[3] * blocks.width - blocks.left - blocks.right;
  if (height < 1 || width < 1) call.Fail("crops leave a size of " + ToString({height, width}));
  type.shape = {type.shape[0] / (blocks.height * blocks.width), type.shape[1], height, width};
  return {type};
}

std::vector<Tensor> EvaluateBatchToSpace(const OpCall& call) {
  const BatchBlocks blocks = BlocksOf(call, "crops");
  const Shape result = InferBatchToSpace(call).front().shape;
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Take(call.Value("x"), result, [&](const Shape& i) {
    const std::int64_t row = i[2] + blocks.top;
    const std::int64_t column = i[3] + blocks.left;
    const std::int64_t place = row % blocks.height * blocks.width + column % blocks.width;
    return Offset({place * result[0] + i[0], i[1], row / blocks.height, column / blocks.width}, strides);
  })};
}

}  // namespace

std::vector<OpDefinition> RearrangeOps() {
  return {
      {"pixel_shuffle",
       {Required("x"), RequiredConstant("upscale_factor")},
       InferToSpace,
       EvaluateToSpace<Order::BlockInChannel>},
      {"pixel_unshuffle",
       {Required("x"), RequiredConstant("downscale_factor")},
       InferToChannels,
       EvaluateToChannels<Order::BlockInChannel>},
      {"depth_to_space",
       {Required("x"), RequiredConstant("block_size")},
       InferToSpace,
       EvaluateToSpace<Order::ChannelInBlock>},
      {"space_to_depth",
       {Required("x"), RequiredConstant("block_size")},
       InferToChannels,
       EvaluateToChannels<Order::ChannelInBlock>},
      {"space_to_batch",
       {Required("x"), RequiredConstant("block_shape"), RequiredConstant("paddings")},
       InferSpaceToBatch,
       EvaluateSpaceToBatch},
      {"batch_to_space",
       {Required("x"), RequiredConstant("block_shape"), RequiredConstant("crops")},
       InferBatchToSpace,
       EvaluateBatchToSpace},
  };
}

}  // namespace ulmora::engine::program
