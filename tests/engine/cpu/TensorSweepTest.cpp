// Operations on whole tensors (moves, resampling, pools, reductions, norms, products) compiled in every layout against
// their reference evaluation.

#include "engine/program/Specialize.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <numeric>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

TEST(TensorSweep, ShuffledPixels) {
  for (const std::int64_t side : {1, 2, 3, 4}) {
    for (const std::int64_t channels : {1, 3, 16}) {
      Random random(static_cast<std::uint32_t>(side * 100 + channels));
      const auto factor = static_cast<std::int32_t>(side);
      const Tensor deep = random.Floats({2, channels * side * side, 3, 5});
      const Tensor wide = random.Floats({2, channels, 3 * side, 2 * side});
      ExpectSame(OpCase{"pixel_shuffle", {{"x", {deep}}}, {{"upscale_factor", Tensor::Int(factor)}}});
      ExpectSame(OpCase{"depth_to_space", {{"x", {deep}}}, {{"block_size", Tensor::Int(factor)}}});
      ExpectSame(OpCase{"pixel_unshuffle", {{"x", {wide}}}, {{"downscale_factor", Tensor::Int(factor)}}});
      ExpectSame(OpCase{"space_to_depth", {{"x", {wide}}}, {{"block_size", Tensor::Int(factor)}}});
    }
  }
}

TEST(TensorSweep, Reshapes) {
  Random random(1);
  const Tensor x = random.Floats({1, 16, 3, 4});
  ExpectSame(OpCase{"reshape", {{"x", {x}}}, {{"shape", Tensor::IntVector({1, 4, 4, 12})}}});
  ExpectSame(OpCase{"expand_dims", {{"x", {x}}}, {{"axes", Tensor::IntVector({0, 3})}}});
  ExpectSame(OpCase{"squeeze", {{"x", {x}}}, {{"axes", Tensor::IntVector({0})}}});
  ExpectSame(OpCase{"flatten2d", {{"x", {x}}}, {{"axis", Tensor::Int(2)}}});
}

TEST(TensorSweep, Transpose) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    std::vector<std::int64_t> perm(shape.size());
    std::iota(perm.begin(), perm.end(), std::int64_t{0});
    for (std::size_t i = perm.size(); i > 1; --i) {
      std::swap(perm[i - 1], perm[static_cast<std::size_t>(random.Int(0, static_cast<std::int64_t>(i) - 1))]);
    }
    ExpectSame(OpCase{"transpose", {{"x", {random.Floats(shape)}}}, {{"perm", Ints(perm)}}});
  });
}

TEST(TensorSweep, Slices) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    std::vector<std::int64_t> begin, end, stride, size;
    for (const std::int64_t dim : shape) {
      const std::int64_t first = random.Int(0, dim - 1);
      begin.push_back(first);
      end.push_back(random.Int(first + 1, dim));
      stride.push_back(random.Int(1, 2));
      size.push_back(end.back() - first);
    }
    const Tensor x = random.Floats(shape);
    ExpectSame(
        OpCase{"slice_by_index", {{"x", {x}}}, {{"begin", Ints(begin)}, {"end", Ints(end)}, {"stride", Ints(stride)}}});
    ExpectSame(OpCase{"slice_by_size", {{"x", {x}}}, {{"begin", Ints(begin)}, {"size", Ints(size)}}});
    ExpectSame(OpCase{"reverse", {{"x", {x}}}, {{"axes", Ints({random.Int(0, 1), 2})}}});
  });
}

TEST(TensorSweep, SlicesThatDropDimensions) {
  Random random(5);
  OpCase c{"slice_by_index", {{"x", {random.Floats({2, 16, 3, 4})}}}, {}};
  c.constants.emplace("begin", Tensor::IntVector({1, 0, 2, 0}));
  c.constants.emplace("end", Tensor::IntVector({0, 16, 0, 4}));
  c.constants.emplace("squeeze_mask", Tensor::Bools({4}, {1, 0, 1, 0}));
  ExpectSame(c);
}

TEST(TensorSweep, WholeBlocksOfChannelsAreSliced) {
  Random random(6);
  for (const std::int32_t first : {0, 16, 8}) {
    OpCase c{"slice_by_size", {{"x", {random.Floats({1, 48, 3, 4})}}}, {}};
    c.constants.emplace("begin", Tensor::IntVector({0, first, 1, 0}));
    c.constants.emplace("size", Tensor::IntVector({1, 32, 2, 4}));
    ExpectSame(c);
  }
}

TEST(TensorSweep, Crop) {
  ForSeeds([](Random& random) {
    const Shape shape = {1, random.Pick<std::int64_t>({3, 16}), random.Int(5, 9), random.Int(5, 9)};
    OpCase c{"crop", {{"x", {random.Floats(shape)}}}, {}};
    c.constants.emplace("crop_height", Ints({random.Int(0, 2), random.Int(0, 2)}));
    c.constants.emplace("crop_width", Ints({random.Int(0, 2), random.Int(0, 2)}));
    ExpectSame(c);
  });
}

TEST(TensorSweep, Pad) {
  for (const std::string mode : {"constant", "reflect", "replicate"}) {
    ForSeeds([&](Random& random) {
      const Shape shape = {1, random.Pick<std::int64_t>({3, 16}), random.Int(4, 9), random.Int(4, 9)};
      OpCase c{"pad", {{"x", {random.Floats(shape)}}}, {{"mode", Tensor::Text(mode)}}};
      const std::int64_t channels = mode == "constant" ? random.Pick<std::int64_t>({0, 0, 5, 16}) : 0;
      c.constants.emplace("pad", Ints({0, 0, channels, 0, random.Int(0, 3), random.Int(0, 3), random.Int(0, 3), 1}));
      c.constants.emplace("constant_val", Tensor::Float(0.5F));
      ExpectSame(c);
    });
  }
}

TEST(TensorSweep, Gather) {
  Random random(1);
  const Tensor x = random.Floats({2, 16, 3, 4});
  for (const std::int32_t axis : {0, 1, 2, -1}) {
    ExpectSame(
        OpCase{"gather", {{"x", {x}}}, {{"indices", Tensor::IntVector({1, 0, 1})}, {"axis", Tensor::Int(axis)}}});
    ExpectSame(OpCase{"gather", {{"x", {x}}}, {{"indices", Tensor::Int(1)}, {"axis", Tensor::Int(axis)}}});
  }
}

TEST(TensorSweep, Joins) {
  ForSeeds([](Random& random) {
    Shape shape = RandomImage(random);
    const std::int64_t axis = random.Int(0, static_cast<std::int64_t>(shape.size()) - 1);
    std::vector<Tensor> parts;
    for (std::int64_t i = random.Int(1, 4); i > 0; --i) {
      Shape part = shape;
      part[static_cast<std::size_t>(axis)] = random.Pick<std::int64_t>({1, 3, 16, 32});
      parts.push_back(random.Floats(part));
    }
    OpCase concat{"concat", {{"values", parts}}, {{"axis", Tensor::Int(static_cast<std::int32_t>(axis))}}};
    concat.constants.emplace("interleave", Tensor::Bool(false));
    ExpectSame(concat);
    const std::vector<Tensor> equal = {random.Floats(shape), random.Floats(shape), random.Floats(shape)};
    concat.running["values"] = equal;
    concat.constants.insert_or_assign("interleave", Tensor::Bool(true));
    ExpectSame(concat);
    if (shape.size() < 5) {
      ExpectSame(OpCase{"stack", {{"values", equal}}, {{"axis", Tensor::Int(static_cast<std::int32_t>(axis))}}});
    }
  });
}

TEST(TensorSweep, ConcatOfScalars) {
  OpCase c{"concat", {}, {{"axis", Tensor::Int(0)}, {"interleave", Tensor::Bool(false)}}};
  c.running["values"] = {Tensor::Float(1.0F), Tensor::Float(-2.0F), Tensor::Float(0.5F)};
  ExpectSame(c);
}

TEST(TensorSweep, ConcatWithConstantsOfNoElements) {
  const Shape shape = {1, 16, 3, 4};
  Shape none = shape;
  none[2] = 0;
  program::ProgramBuilder builder;
  const program::ValueId x = builder.Input("x", shape);
  const program::ValueId empty = builder.Constant(Tensor::Floats(none, {}));
  const program::ValueId axis = builder.Constant(Tensor::Int(-2));
  const program::ValueId interleave = builder.Constant(Tensor::Bool(false));
  builder.Output(builder.Call(
      "concat", {{"values", {empty, x, empty, x, empty}}, {"axis", {axis}}, {"interleave", {interleave}}}));
  Random random(1);
  const Tensor input = random.Floats(shape);
  const program::Program program = program::Specialize(builder.program, {shape});
  ExpectSame(program, input);
  EXPECT_EQ(DeclinedIn(program), std::vector<std::string>{});
}

TEST(TensorSweep, Splits) {
  ForSeeds([](Random& random) {
    Shape shape = RandomImage(random);
    const auto axis = static_cast<std::size_t>(random.Int(0, static_cast<std::int64_t>(shape.size()) - 1));
    const std::vector<std::int64_t> sizes = {16, random.Pick<std::int64_t>({1, 5, 16}), 16};
    shape[axis] = std::accumulate(sizes.begin(), sizes.end(), std::int64_t{0});
    OpCase c{"split", {{"x", {random.Floats(shape)}}}, {{"split_sizes", Ints(sizes)}}};
    c.constants.emplace("axis", Tensor::Int(static_cast<std::int32_t>(axis)));
    ExpectSame(c);
  });
}

TEST(TensorSweep, Tile) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random, 4);
    std::vector<std::int64_t> reps;
    for (std::size_t i = 0; i < shape.size(); ++i) reps.push_back(random.Int(1, 2));
    ExpectSame(OpCase{"tile", {{"x", {random.Floats(shape)}}}, {{"reps", Ints(reps)}}});
  });
}

TEST(TensorSweep, Upsampling) {
  ForSeeds([](Random& random) {
    const Tensor x = random.Floats(RandomPicture(random));
    OpCase nearest{"upsample_nearest_neighbor", {{"x", {x}}}, {}};
    nearest.constants.emplace("scale_factor_height", Tensor::Int(static_cast<std::int32_t>(random.Int(1, 3))));
    nearest.constants.emplace("scale_factor_width", Tensor::Float(random.Pick<float>({1.0F, 2.0F, 1.5F})));
    ExpectSame(nearest);
    OpCase linear = nearest;
    linear.key = "upsample_bilinear";
    linear.constants.emplace("align_corners", Tensor::Bool(random.Coin()));
    ExpectSame(linear, {1e-5, 1e-5});
  });
}

TEST(TensorSweep, SamplesDoNotTakeInfinitiesBesideThem) {
  const float infinity = std::numeric_limits<float>::infinity();
  OpCase c{"resize_bilinear", {}, {{"sampling_mode", Tensor::Text("STRICT_ALIGN_CORNERS")}}};
  c.constants.emplace("target_size_height", Tensor::Int(2));
  c.constants.emplace("target_size_width", Tensor::Int(5));
  // The second sample of a row of the source is the third of the result; each row is one of the result.
  c.running["x"] = {Tensor::Floats({1, 1, 2, 3}, {1.0F, 2.0F, infinity, 4.0F, 5.0F, infinity})};
  ExpectSame(c);
}

TEST(TensorSweep, Resizing) {
  for (const std::string mode :
       {"DEFAULT", "STRICT_ALIGN_CORNERS", "ALIGN_CORNERS", "OFFSET_CORNERS", "UNALIGN_CORNERS"}) {
    ForSeeds([&](Random& random) {
      OpCase c{"resize_bilinear", {{"x", {random.Floats(RandomPicture(random))}}}, {}};
      c.constants.emplace("target_size_height", Tensor::Int(static_cast<std::int32_t>(random.Int(1, 12))));
      c.constants.emplace("target_size_width", Tensor::Int(static_cast<std::int32_t>(random.Int(1, 12))));
      OpCase nearest = c;
      c.constants.emplace("sampling_mode", Tensor::Text(mode));
      ExpectSame(c, {1e-5, 1e-5});
      nearest.key = "resize_nearest_neighbor";
      ExpectSame(nearest);
    });
  }
}

TEST(TensorSweep, Pools) {
  for (const std::string key : {"max_pool", "avg_pool", "l2_pool"}) {
    ForSeeds([&](Random& random) {
      const Shape shape = RandomImage(random, 12);
      std::vector<std::int64_t> kernel, strides, pad;
      for (std::size_t i = 2; i < shape.size(); ++i) {
        kernel.push_back(random.Int(1, std::min<std::int64_t>(3, shape[i])));
        strides.push_back(random.Int(1, 2));
        const std::int64_t padding = random.Int(0, kernel.back() / 2);
        pad.insert(pad.end(), {padding, padding});
      }
      OpCase c{key, {{"x", {random.Floats(shape)}}}, {}};
      c.constants.emplace("kernel_sizes", Ints(kernel));
      c.constants.emplace("strides", Ints(strides));
      c.constants.emplace("pad", Ints(pad));
      c.constants.emplace("pad_type", Tensor::Text(random.Pick<std::string>({"custom", "valid", "same"})));
      const bool canCeil = shape.size() < 5 && c.constants.at("pad_type").strings().front() != "same";
      c.constants.emplace("ceil_mode", Tensor::Bool(canCeil && random.Coin()));
      if (key == "avg_pool") c.constants.emplace("exclude_padding_from_average", Tensor::Bool(random.Coin()));
      ExpectSame(c, {1e-5, 1e-5});
    });
  }
}

TEST(TensorSweep, Reductions) {
  for (const std::string key :
       {"reduce_sum", "reduce_mean", "reduce_max", "reduce_min", "reduce_prod", "reduce_l1_norm", "reduce_l2_norm",
        "reduce_sum_square", "reduce_log_sum", "reduce_log_sum_exp"}) {
    ForSeeds([&](Random& random) {
      const Shape shape = RandomImage(random);
      std::vector<std::int64_t> axes;
      for (std::size_t i = 0; i < shape.size(); ++i) {
        if (random.Coin()) axes.push_back(static_cast<std::int64_t>(i));
      }
      OpCase c{key, {{"x", {random.Floats(shape, 0.8F, 1.2F)}}}, {}};
      if (!axes.empty()) c.constants.emplace("axes", Ints(axes));
      c.constants.emplace("keep_dims", Tensor::Bool(random.Coin()));
      ExpectSame(c, {1e-5, 1e-5});
    });
  }
}

TEST(TensorSweep, LongReductionsAreCutIntoChunks) {
  Random random(4);
  for (const std::vector<std::int64_t>& axes : {std::vector<std::int64_t>{2, 3}, {1}, {0, 1, 2, 3}}) {
    OpCase c{"reduce_mean", {{"x", {random.Floats({1, 16, 90, 111}, 10.0F, 11.0F)}}}, {{"axes", Ints(axes)}}};
    c.constants.emplace("keep_dims", Tensor::Bool(true));
    ExpectSame(c, {1e-6, 1e-6});
  }
}

TEST(TensorSweep, BatchAndInstanceNorm) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random, 12);
    OpCase c{"batch_norm", {{"x", {random.Floats(shape)}}}, {}};
    c.constants.emplace("gamma", random.Floats({shape[1]}));
    c.constants.emplace("beta", random.Floats({shape[1]}));
    OpCase instance = c;
    c.constants.emplace("mean", random.Floats({shape[1]}));
    c.constants.emplace("variance", random.Floats({shape[1]}, 0.5F, 2.0F));
    ExpectSame(c, {1e-5, 1e-5});
    instance.key = "instance_norm";
    instance.constants.emplace("epsilon", Tensor::Float(1e-3F));
    if (shape.size() < 5) ExpectSame(instance, {1e-4, 1e-4});
  });
}

TEST(TensorSweep, LayerNorm) {
  ForSeeds([](Random& random) {
    const Shape shape = RandomImage(random);
    const std::vector<std::vector<std::int64_t>> choices = {{1}, {-1}, {1, 2}};
    for (const std::vector<std::int64_t>& axes : choices) {
      Shape normalized;
      for (const std::int64_t axis : axes) {
        normalized.push_back(shape[static_cast<std::size_t>(axis < 0 ? axis + std::ssize(shape) : axis)]);
      }
      OpCase c{"layer_norm", {{"x", {random.Floats(shape, 3.0F, 5.0F)}}}, {{"axes", Ints(axes)}}};
      c.constants.emplace("epsilon", Tensor::Float(1e-2F));
      if (random.Coin()) {
        c.constants.emplace("gamma", random.Floats(normalized));
        c.constants.emplace("beta", random.Floats(normalized));
      }
      ExpectSame(c, {1e-4, 1e-4});
    }
  });
}

TEST(TensorSweep, MatrixProducts) {
  ForSeeds([](Random& random) {
    const std::int64_t rows = random.Int(1, 9), inner = random.Int(1, 40), columns = random.Int(1, 20);
    const bool tx = random.Coin(), ty = random.Coin();
    const Shape batch = random.Pick<Shape>({{}, {3}, {2, 3}, {1, 3}});
    Shape x = batch, y = random.Coin() ? batch : Shape{};
    x.insert(x.end(), {tx ? inner : rows, tx ? rows : inner});
    y.insert(y.end(), {ty ? columns : inner, ty ? inner : columns});
    OpCase c{"matmul", {{"x", {random.Floats(x)}}}, {}};
    if (random.Coin()) {
      c.running["y"] = {random.Floats(y)};
    } else {
      c.constants.emplace("y", random.Floats(y));
    }
    c.constants.emplace("transpose_x", Tensor::Bool(tx));
    c.constants.emplace("transpose_y", Tensor::Bool(ty));
    ExpectSame(c, {1e-5, 1e-5});
    Shape rowsShape = batch;
    rowsShape.insert(rowsShape.end(), {rows, inner});
    OpCase linear{"linear", {{"x", {random.Floats(rowsShape)}}}, {{"weight", random.Floats({columns, inner})}}};
    if (random.Coin()) linear.constants.emplace("bias", random.Floats({columns}));
    ExpectSame(linear, {1e-5, 1e-5});
  });
}

TEST(TensorSweep, VectorProducts) {
  Random random(2);
  ExpectSame(OpCase{"matmul", {{"x", {random.Floats({7})}}, {"y", {random.Floats({7, 5})}}}, {}}, {1e-5, 1e-5});
  ExpectSame(OpCase{"matmul", {{"x", {random.Floats({4, 7})}}, {"y", {random.Floats({7})}}}, {}}, {1e-5, 1e-5});
}

TEST(TensorSweep, Attention) {
  ForSeeds([](Random& random) {
    const std::int64_t rows = random.Int(1, 9), columns = random.Int(1, 9), inner = random.Int(1, 20);
    const Shape batch = random.Pick<Shape>({{2}, {1, 3}, {2, 2, 2}});
    const auto matrices = [&](std::int64_t r, std::int64_t c) {
      Shape shape = batch;
      shape.insert(shape.end(), {r, c});
      return random.Floats(shape);
    };
    OpCase c{"scaled_dot_product_attention", {}, {}, 8};
    c.running["query"] = {matrices(rows, inner)};
    c.running["key"] = {matrices(columns, inner)};
    c.running["value"] = {matrices(columns, random.Int(1, 17))};
    ExpectSame(c, {1e-5, 1e-5});
    c.constants.emplace("attn_mask", random.Floats({rows, columns}));
    ExpectSame(c, {1e-5, 1e-5});
    std::vector<std::uint8_t> attend(static_cast<std::size_t>(columns));
    for (std::uint8_t& flag : attend) flag = random.Coin() ? 1 : 0;
    c.constants.insert_or_assign("attn_mask", Tensor::Bools({columns}, attend));
    ExpectSame(c, {1e-5, 1e-5});
  });
}

}  // namespace
}  // namespace ulmora::engine::cpu
