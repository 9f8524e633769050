// Random small networks of many operations, through the rewriting passes and the compiler, against the reference
// evaluation of what they were before. They are full of what the passes look for, complete and almost so: values that
// serve something else as well, constants of other shapes, outputs in the middle.

#include "engine/program/Interpret.h"
#include "engine/program/Specialize.h"
#include "engine/program/Verify.h"
#include "engine/program/passes/Pipeline.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using program::Operands;
using program::Program;
using program::ProgramBuilder;
using program::TestOperands;
using program::ValueId;

/// Grows a program operation by operation and computes every value on the way, so that none gets out of hand.
class Grower {
 public:
  explicit Grower(Random& random) : random_(random), builder_(7) {
    const Shape shape = {1, random_.Pick<std::int64_t>({3, 8, 16}), random_.Int(3, 7), random_.Int(3, 7)};
    const Tensor input = random_.Floats(shape, -2.0F, 2.0F);
    pool_.push_back({builder_.Input("input", shape), input});
  }

  void Grow(int steps) {
    const std::vector<void (Grower::*)()> kinds = {
        &Grower::Activation, &Grower::Activation,   &Grower::WrittenOut,  &Grower::WrittenOut, &Grower::Binary,
        &Grower::Binary,     &Grower::WithConstant, &Grower::Convolve,    &Grower::Convolve,   &Grower::Convolve,
        &Grower::Transposed, &Grower::Normalize,    &Grower::WrittenNorm, &Grower::Cast,       &Grower::Rearrange,
        &Grower::Multiply,   &Grower::WithConstant, &Grower::Resample,    &Grower::Reduce,     &Grower::Join,
        &Grower::Gate};
    for (int i = 0; i < steps; ++i) (this->*random_.Pick(kinds))();
  }

  /// Some of the values as outputs, the last one among them.
  [[nodiscard]] Program WithOutputs() {
    Program program = builder_.program;
    program.outputs = {pool_.back().id};
    for (const Grown& value : pool_) {
      const bool isNew = std::ranges::count(program.outputs, value.id) == 0;
      if (isNew && value.id != program.inputs.front() && random_.Int(0, 5) == 0) program.outputs.push_back(value.id);
    }
    return program;
  }

  /// The same values flat and one behind another in one output.
  [[nodiscard]] Program WithOneOutput(const Operands& outputs) {
    ProgramBuilder builder = builder_;
    Operands flat;
    for (const ValueId id : outputs) {
      const ValueId shape = builder.Constant(Tensor::IntVector({-1}));
      flat.push_back(builder.Call("reshape", {{"x", {id}}, {"shape", {shape}}}));
    }
    const ValueId axis = builder.Constant(Tensor::Int(0));
    builder.Output(builder.Call("concat", {{"values", flat}, {"axis", {axis}}}));
    return builder.program;
  }

  [[nodiscard]] const Tensor& input() const { return pool_.front().value; }

 private:
  struct Grown {
    ValueId id = 0;
    Tensor value = Tensor::Float(0.0F);
  };
  using Arguments = std::vector<std::pair<std::string, std::vector<Grown>>>;

  Grown Constant(Tensor tensor) { return {builder_.Constant(tensor), tensor}; }
  Grown Float(float value) { return Constant(Tensor::Float(value)); }
  Grown IntsOf(const std::vector<std::int64_t>& values) { return Constant(Ints(values)); }

  /// Mostly one of the last few values: graphs should be deep, and what is beside each other should meet.
  Grown Any() {
    const auto size = static_cast<std::int64_t>(pool_.size());
    const std::int64_t back =
        random_.Int(0, 4) == 0 ? random_.Int(0, size - 1) : random_.Int(0, std::min<std::int64_t>(size - 1, 2));
    return pool_[static_cast<std::size_t>(size - 1 - back)];
  }

  Grown Picture() {
    const Grown any = Any();
    return any.value.shape().size() == 4 ? any : pool_.front();
  }

  Grown Call(const std::string& key, const Arguments& arguments) {
    TestOperands operands;
    std::map<std::string, Operands> ids;
    for (const auto& [name, values] : arguments) {
      std::vector<Tensor> tensors;
      for (const Grown& value : values) {
        tensors.push_back(value.value);
        ids[name].push_back(value.id);
      }
      operands.emplace(name, tensors);
    }
    Tensor result = program::EvaluateOne(key, operands, 7);
    return {builder_.Call(key, ids, {result.element(), {}, false}), std::move(result)};
  }

  Grown Apply(const std::string& key, const Grown& x, const Arguments& others = {}) {
    Arguments arguments = others;
    arguments.push_back({"x", {x}});
    return Call(key, arguments);
  }

  Grown Two(const std::string& key, const Grown& x, const Grown& y) { return Call(key, {{"x", {x}}, {"y", {y}}}); }
  /// Operands of commutative operations come in either order.
  Grown Either(const std::string& key, const Grown& x, const Grown& y) {
    return random_.Coin() ? Two(key, x, y) : Two(key, y, x);
  }

  /// Values that would drown the others, or rounding errors of which would, stay behind as dead code.
  void Keep(const Grown& grown) {
    const auto tame = [](float value) { return std::abs(value) < 12.0F; };
    if (grown.value.count() < 4000 && std::ranges::all_of(grown.value.floats(), tame)) pool_.push_back(grown);
  }

  /// One in four values in the middle of a pattern is used by others, too.
  Grown Shared(const Grown& grown) {
    if (random_.Int(0, 3) == 0) Keep(grown);
    return grown;
  }

  void Activation() {
    const Grown x = Any();
    const std::string key = random_.Pick<std::string>({"relu", "relu6", "sigmoid", "silu", "tanh", "gelu", "abs",
                                                       "leaky_relu", "elu", "clip", "linear_activation", "softplus",
                                                       "sigmoid_hard", "scaled_tanh", "prelu", "square", "threshold"});
    Arguments others;
    if (key == "prelu") {
      if (x.value.shape().size() < 3) return;
      others = {{"alpha", {Constant(random_.Floats({x.value.shape()[1]}, -0.5F, 0.5F))}}};
    } else if (key == "leaky_relu" || key == "elu" || key == "threshold") {
      others = {{"alpha", {Float(random_.Pick<float>({0.0F, 0.1F, 0.5F}))}}};
    } else if (key == "clip") {
      others = {{"alpha", {Float(random_.Pick<float>({0.0F, -1.0F}))}},
                {"beta", {Float(random_.Pick<float>({6.0F, 1.0F, 3.402823e38F}))}}};
    } else if (key == "linear_activation" || key == "sigmoid_hard" || key == "scaled_tanh") {
      others = {{"alpha", {Float(0.3F)}}, {"beta", {Float(0.6F)}}};
    } else if (key == "gelu") {
      others = {{"mode", {Constant(Tensor::Text(random_.Pick<std::string>({"EXACT", "TANH_APPROXIMATION"})))}}};
    }
    Keep(Apply(key, x, others));
  }

  /// Activations as primitive operations, some with a constant that is another one.
  void WrittenOut() {
    const Grown x = Any();
    switch (random_.Int(0, 6)) {
      case 0:
        return Keep(Either("mul", x, Shared(Apply("sigmoid", x))));
      case 1:
        return Keep(Either("maximum", x, Float(random_.Pick<float>({0.0F, 0.1F}))));
      case 2:
        return Keep(Either("maximum", x, Shared(Either("mul", x, Float(random_.Pick<float>({0.2F, 1.5F, -0.2F}))))));
      case 3: {
        const Grown sum = Shared(Either("add", x, Float(random_.Pick<float>({3.0F, 2.0F}))));
        const Grown gate = Shared(Apply("relu6", sum));
        const Grown product = random_.Coin() ? gate : Shared(Either("mul", x, gate));
        return Keep(random_.Coin() ? Either("mul", product, Float(1.0F / 6.0F))
                                   : Two("real_div", product, Float(6.0F)));
      }
      case 4: {
        const Grown erf = Shared(Apply("erf", Shared(Either("mul", x, Float(0.70710678F)))));
        const Grown sum = Shared(Either("add", erf, Float(random_.Pick<float>({1.0F, 0.5F}))));
        return Keep(Either("mul", Shared(Either("mul", x, sum)), Float(0.5F)));
      }
      case 5:
        return Keep(Either("mul", x, Shared(Apply("tanh", Shared(Apply("softplus", x))))));
      default:
        return Keep(Either("minimum", Shared(Apply("relu", x)), Float(6.0F)));
    }
  }

  void Binary() {
    const Grown x = Any();
    std::vector<Grown> same;
    for (const Grown& other : pool_) {
      if (other.value.shape() == x.value.shape()) same.push_back(other);
    }
    Keep(Two(random_.Pick<std::string>({"add", "sub", "mul", "maximum", "minimum"}), x, random_.Pick(same)));
  }

  /// A constant that broadcasts to `shape`, or beyond it.
  Grown Other(const Shape& shape) {
    Shape own = shape;
    for (std::int64_t& dim : own) dim = random_.Coin() ? 1 : dim;
    switch (random_.Int(0, 4)) {
      case 0:
        own.assign(static_cast<std::size_t>(random_.Int(0, 1)), 1);
        break;
      case 1:
        std::fill(own.begin(), own.end(), 1);
        if (own.size() > 1) own[1] = shape[1];
        break;
      case 2:
        own.erase(own.begin());
        break;
      default:
        break;
    }
    return Constant(random_.Floats(own, 0.3F, 1.2F));
  }

  void WithConstant() {
    const Grown x = Any();
    const std::string key = random_.Pick<std::string>({"add", "sub", "mul", "real_div"});
    const Grown other = Other(x.value.shape());
    Keep(key == "real_div" || random_.Coin() ? Two(key, x, other) : Two(key, other, x));
  }

  void Convolve() {
    const Grown x = Picture();
    const std::int64_t inputs = x.value.shape()[1];
    const std::int64_t groups = random_.Int(0, 3) == 0 ? inputs : 1;
    const std::int64_t outputs = groups == 1 ? random_.Pick<std::int64_t>({3, 8, 16}) : inputs;
    const std::int64_t size = random_.Pick<std::int64_t>({1, 3});
    const float bound = 1.5F / std::sqrt(static_cast<float>(inputs / groups * size * size));
    Arguments others = {{"weight", {Constant(random_.Floats({outputs, inputs / groups, size, size}, -bound, bound))}},
                        {"pad_type", {Constant(Tensor::Text("same"))}},
                        {"groups", {Constant(Tensor::Int(static_cast<std::int32_t>(groups)))}}};
    if (random_.Coin()) others.push_back({"bias", {Constant(random_.Floats({outputs}))}});
    Grown y = Apply("conv", x, others);
    // What convolutions are followed by in networks, so that folding and attaching find it.
    if (random_.Coin()) y = BatchNorm(Shared(y));
    if (random_.Coin()) y = Either("mul", Shared(y), Constant(random_.Floats({1, outputs, 1, 1}, 0.5F, 1.5F)));
    if (random_.Coin()) y = Apply(random_.Pick<std::string>({"relu", "silu", "tanh"}), Shared(y));
    if (random_.Coin() && y.value.shape() == x.value.shape()) y = Either("add", Shared(y), x);
    Keep(y);
  }

  void Transposed() {
    const Grown x = Picture();
    if (x.value.count() > 600) return;
    const std::int64_t inputs = x.value.shape()[1];
    const float bound = 1.5F / std::sqrt(static_cast<float>(inputs));
    Grown y = Apply(
        "conv_transpose", x,
        {{"weight", {Constant(random_.Floats({inputs, 8, 2, 2}, -bound, bound))}}, {"strides", {IntsOf({2, 2})}}});
    if (random_.Coin()) y = Two("sub", Constant(random_.Floats({8, 1, 1})), Shared(y));
    Keep(y);
  }

  Grown BatchNorm(const Grown& x) {
    const Shape channels = {x.value.shape()[1]};
    Arguments others = {{"mean", {Constant(random_.Floats(channels))}},
                        {"variance", {Constant(random_.Floats(channels, 0.5F, 2.0F))}}};
    if (random_.Coin()) others.push_back({"gamma", {Constant(random_.Floats(channels, 0.5F, 1.5F))}});
    if (random_.Coin()) others.push_back({"beta", {Constant(random_.Floats(channels))}});
    return Apply("batch_norm", x, others);
  }

  void Normalize() {
    const Grown x = Picture();
    if (random_.Coin()) return Keep(BatchNorm(x));
    Keep(Apply("layer_norm", x,
               {{"axes", {IntsOf({random_.Pick<std::int64_t>({1, -1})})}}, {"epsilon", {Float(0.1F)}}}));
  }

  /// Layer normalisation as primitive operations.
  void WrittenNorm() {
    const Grown x = Picture();
    const Arguments over = {{"axes", {IntsOf({random_.Pick<std::int64_t>({1, 1, 3})})}},
                            {"keep_dims", {Constant(Tensor::Bool(true))}}};
    const Grown centred = Shared(Two("sub", x, Shared(Apply("reduce_mean", x, over))));
    const Grown again = random_.Int(0, 3) == 0 ? Two("sub", x, Apply("reduce_mean", x, over)) : centred;
    const Grown squares = random_.Coin() ? Apply("square", again) : Two("mul", again, again);
    const Grown variance = Shared(Apply("reduce_mean", squares, over));
    const Grown sum = Either("add", variance, Float(0.1F));
    Grown y = random_.Coin() ? Two("real_div", centred, Shared(Apply("sqrt", sum)))
                             : Either("mul", centred, Apply("rsqrt", sum));
    if (random_.Coin()) y = Either("mul", Shared(y), Other(x.value.shape()));
    if (random_.Coin()) y = Either("add", Shared(y), Other(x.value.shape()));
    Keep(y);
  }

  void Cast() {
    const std::string type = random_.Pick<std::string>({"fp16", "fp32"});
    Keep(random_.Coin() ? Apply("identity", Any()) : Apply("cast", Any(), {{"dtype", {Constant(Tensor::Text(type))}}}));
  }

  void Rearrange() {
    const Grown x = Picture();
    const Shape& shape = x.value.shape();
    switch (random_.Int(0, 3)) {
      case 0:
        return Keep(Apply("transpose", x, {{"perm", {IntsOf({0, 1, 3, 2})}}}));
      case 1:
        return Keep(Apply("reshape", x, {{"shape", {IntsOf({shape[0], shape[1], -1})}}}));
      case 2:
        return Keep(Apply(
            "slice_by_size", x,
            {{"begin", {IntsOf({0, shape[1] / 2, 0, 0})}}, {"size", {IntsOf({-1, -1, -1, shape[3] - shape[3] / 2})}}}));
      default:
        return Keep(Apply("pad", x,
                          {{"pad", {IntsOf({0, 0, 0, 0, 1, 0, 0, 1})}},
                           {"mode", {Constant(Tensor::Text(random_.Coin() ? "replicate" : "constant"))}}}));
    }
  }

  /// Linear layers and products of matrices.
  void Multiply() {
    const Grown x = Picture();
    const std::int64_t width = x.value.shape()[3];
    const float bound = 1.5F / std::sqrt(static_cast<float>(width));
    if (random_.Coin()) {
      Arguments others = {{"weight", {Constant(random_.Floats({6, width}, -bound, bound))}}};
      if (random_.Coin()) others.push_back({"bias", {Constant(random_.Floats({6}))}});
      const Grown y = Shared(Apply("linear", x, others));
      return Keep(Either("add", y, Other(y.value.shape())));
    }
    const Grown product = Call("matmul", {{"x", {x}}, {"y", {x}}, {"transpose_y", {Constant(Tensor::Bool(true))}}});
    Keep(Apply("softmax", Shared(Either("mul", product, Float(bound)))));
  }

  void Resample() {
    const Grown x = Picture();
    if (random_.Coin() && x.value.count() < 600) {
      return Keep(Apply("upsample_bilinear", x,
                        {{"scale_factor_height", {Constant(Tensor::Int(2))}},
                         {"align_corners", {Constant(Tensor::Bool(random_.Coin()))}}}));
    }
    Keep(Apply(random_.Coin() ? "max_pool" : "avg_pool", x,
               {{"kernel_sizes", {IntsOf({2, 2})}}, {"pad_type", {Constant(Tensor::Text("same"))}}}));
  }

  void Reduce() {
    const Grown x = Picture();
    const Grown mean =
        Apply("reduce_mean", x, {{"axes", {IntsOf({2, 3})}}, {"keep_dims", {Constant(Tensor::Bool(true))}}});
    Keep(random_.Coin() ? mean : Either("mul", x, Apply("sigmoid", mean)));
  }

  /// Parts of the channels multiplied with each other, mostly behind a convolution.
  void Gate() {
    Grown x = Picture();
    if (x.value.count() > 1200) return;
    if (random_.Int(0, 3) != 0) {
      const std::int64_t outputs = 2 * random_.Pick<std::int64_t>({3, 8, 16});
      const std::int64_t inputs = x.value.shape()[1];
      const float bound = 1.5F / std::sqrt(static_cast<float>(inputs));
      x = Shared(Apply("conv", x, {{"weight", {Constant(random_.Floats({outputs, inputs, 1, 1}, -bound, bound))}}}));
    }
    Shape size = x.value.shape();
    const std::int64_t channels = size[1];
    if (channels % 2 != 0) return;
    size[1] = channels / 2;
    const auto part = [&](std::int64_t first) {
      return Apply("slice_by_size", x, {{"begin", {IntsOf({0, first, 0, 0})}}, {"size", {IntsOf(size)}}});
    };
    Grown left = Shared(part(0));
    const Grown right = Shared(part(channels / 2));
    if (random_.Coin()) left = Apply(random_.Pick<std::string>({"sigmoid", "gelu", "relu"}), left);
    if (random_.Int(0, 3) == 0) Keep(Apply("tanh", x));
    Keep(Either("mul", left, right));
  }

  void Join() {
    const Grown x = Picture();
    const Grown y = Apply("tanh", x);
    Keep(Call("concat", {{"values", {x, y, x}}, {"axis", {Constant(Tensor::Int(1))}}}));
  }

  Random& random_;
  ProgramBuilder builder_;
  std::vector<Grown> pool_;
};

constexpr Tolerance kTolerance = {3e-4, 3e-4};

class RandomGraphs : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(RandomGraphs, StayWhatTheyAreWhenRewrittenAndCompiled) {
  Random random(GetParam());
  SCOPED_TRACE("seed " + std::to_string(random.seed()));
  Grower grower(random);
  grower.Grow(18);
  const std::vector<Shape> shapes = {grower.input().shape()};

  Program rewritten = program::Specialize(grower.WithOutputs(), shapes);
  const Operands outputs = rewritten.outputs;
  const std::vector<Tensor> expected = program::Interpret(rewritten, std::span(&grower.input(), 1));
  program::Rewrite(rewritten);
  program::VerifySpecialized(rewritten);
  const std::vector<Tensor> found = program::Interpret(rewritten, std::span(&grower.input(), 1));
  ASSERT_EQ(found.size(), expected.size());
  std::vector<float> all;
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i].shape(), expected[i].shape());
    ExpectClose(program::FloatsOf(found[i]), expected[i].floats(), kTolerance,
                "rewritten, output " + std::to_string(i));
    all.insert(all.end(), expected[i].floats().begin(), expected[i].floats().end());
  }

  Program single = program::Specialize(grower.WithOneOutput(outputs), shapes);
  program::Rewrite(single);
  ExpectClose(RunCompiled(single, grower.input()), all, kTolerance, "compiled");
}

TEST(FusedSteps, OfOneKindKeepTheirOwnParameters) {
  const Shape shape = {1, 8, 12, 14};
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", shape);
  const ValueId transposed = builder.Constant(Tensor::Bool(true));
  const ValueId product = builder.Call("matmul", {{"x", {x}}, {"y", {x}}, {"transpose_y", {transposed}}});
  const ValueId scaled = builder.Call("mul", {{"x", {product}}, {"y", {builder.Constant(Tensor::Float(0.4F))}}});
  builder.Output(builder.Call("add", {{"x", {scaled}}, {"y", {builder.Constant(Tensor::Float(2.0F))}}}));
  Program program = program::Specialize(builder.program, {shape});
  program::Rewrite(program);
  Random random(1);
  ExpectSame(program, random.Floats(shape), {1e-5, 1e-5});
}

TEST(FusedSteps, OneNumberForEachRowOfAProductWithAVector) {
  const Shape shape = {2, 4, 5};
  for (const std::string key : {"add", "sub", "mul", "maximum"}) {
    SCOPED_TRACE(key);
    Random random(1);
    ProgramBuilder builder;
    const ValueId x = builder.Input("x", shape);
    const ValueId vector = builder.Constant(random.Floats({5}));
    const ValueId product = builder.Call("matmul", {{"x", {x}}, {"y", {vector}}});
    builder.Output(builder.Call(key, {{"x", {product}}, {"y", {builder.Constant(random.Floats({4}))}}}));
    Program program = program::Specialize(builder.program, {shape});
    program::Rewrite(program);
    EXPECT_EQ(program.operations.size(), 1U);
    ExpectSame(program, random.Floats(shape), {1e-5, 1e-5});
  }
}

TEST(FusedSteps, BoundsThatTheLibraryRefuses) {
  const Shape shape = {1, 16, 6, 7};
  const float none = std::numeric_limits<float>::quiet_NaN();
  for (const auto& [low, high] : {std::pair(5.0F, 2.0F), std::pair(none, 2.0F), std::pair(-2.0F, none)}) {
    SCOPED_TRACE(std::to_string(low) + " to " + std::to_string(high));
    Random random(1);
    ProgramBuilder builder;
    const ValueId x = builder.Input("x", shape);
    const ValueId weight = builder.Constant(random.Floats({16, 16, 3, 3}));
    const ValueId y = builder.Call("conv", {{"x", {x}}, {"weight", {weight}}});
    const ValueId alpha = builder.Constant(Tensor::Float(low));
    const ValueId beta = builder.Constant(Tensor::Float(high));
    builder.Output(builder.Call("clip", {{"x", {y}}, {"alpha", {alpha}}, {"beta", {beta}}}));
    Program program = program::Specialize(builder.program, {shape});
    program::Rewrite(program);
    ExpectSame(program, random.Floats(shape), {5e-5, 5e-5});
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomGraphs, ::testing::Range(1U, 97U));

}  // namespace
}  // namespace ulmora::engine::cpu
