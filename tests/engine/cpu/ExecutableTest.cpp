// Whole programs: networks against the reference interpreter, the edges of the interface, and what a run must not do.

#include "bench/SampleNetworks.h"
#include "engine/Error.h"
#include "engine/cpu/Executable.h"
#include "engine/cpu/FlushSubnormals.h"
#include "engine/program/Interpret.h"
#include "tests/engine/cpu/CpuTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

// Sanitizers replace the allocation functions themselves, and two replacements do not mix.
#if defined(__SANITIZE_ADDRESS__)
#define LUMVANE_COUNTS_ALLOCATIONS 0
#else
#define LUMVANE_COUNTS_ALLOCATIONS 1
#endif

namespace {

/// Bytes asked for by operator new in the whole process, the library's included.
std::atomic<std::size_t> allocatedBytes{0};
std::atomic<std::size_t> largestAllocation{0};

#if LUMVANE_COUNTS_ALLOCATIONS
void* CountedAllocation(std::size_t bytes, std::size_t alignment) {
  allocatedBytes += bytes;
  if (bytes > largestAllocation) largestAllocation = bytes;
  const std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
  void* memory = std::aligned_alloc(alignment, rounded > 0 ? rounded : alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
#endif

}  // namespace

#if LUMVANE_COUNTS_ALLOCATIONS
// NOLINTBEGIN: replacements have the signatures that they must have
void* operator new(std::size_t bytes) {
  return CountedAllocation(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  return CountedAllocation(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(bytes > 0 ? bytes : 1);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
// NOLINTEND
#endif

namespace ulmora::engine::cpu {
namespace {

using program::Operands;
using program::ProgramBuilder;
using program::ValueId;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::string RefusalOf(const program::Program& program) {
  try {
    const Executable executable(program);
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Run);
    return error.what();
  }
  ADD_FAILURE() << "compiled";
  return "";
}

// ---- networks

TEST(Executable, RunsTheShippedNetwork) {
  Random random(1);
  const Tensor input = random.Floats({1, 3, 32, 40}, 0.0F, 1.0F);
  for (const bool rewrite : {false, true}) {
    SCOPED_TRACE(rewrite ? "rewritten" : "as written");
    // Where the library has no blocked kernels, every convolution goes through transforms, which cost some digits.
    ExpectSame(sample::ResidualUNet({16, 32, 48}, 1, 32, 40, rewrite), input, {3e-4, 1e-4});
  }
}

TEST(Executable, WeightsMayBeReadInTwoShapes) {
  Random random(4);
  const Tensor weights = random.Floats({32, 64, 3, 3}, -0.05F, 0.05F);
  sample::NetworkWriter net;
  ValueId x = net.Input({1, 64, 12, 13});
  for (const Shape& shape : {Shape{32, 64, 3, 3}, Shape{64, 32, 3, 3}, Shape{96, 64, 1, 3}, Shape{192, 96, 1, 1}}) {
    x = net.Call("conv", {{"x", {x}},
                          {"weight", {net.Constant(weights.Reshaped(shape))}},
                          {"pad_type", {net.Constant(Tensor::Text("same"))}}});
  }
  ExpectSame(net.Finish(x, false), random.Floats({1, 64, 12, 13}), {1e-4, 1e-4});
}

TEST(Executable, MultipliesEmptyConstants) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {3, 2});
  const ValueId product = builder.Call("linear",
                                       {{"x", {builder.Constant(Tensor::Floats({3, 0}, {}))}},
                                        {"weight", {builder.Constant(Tensor::Floats({2, 0}, {}))}},
                                        {"bias", {builder.Constant(Tensor::Floats({2}, {1.0F, 2.0F}))}}},
                                       program::FloatType({3, 2}));
  builder.Output(builder.Call("add", {{"x", {x}}, {"y", {product}}}, program::FloatType({3, 2})));
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({3, 2}, {0, 0, 1, 1, 2, 2})), ElementsAre(1, 2, 2, 3, 3, 4));
}

TEST(Executable, PoolsWithWindowsBeyondTheLibrarysArithmetic) {
  constexpr std::int32_t kLargest = std::numeric_limits<std::int32_t>::max();
  struct Case {
    std::vector<std::int32_t> kernel, strides, pads;
  };
  for (const Case& c : {Case{{1, 4}, {kLargest, kLargest}, {0, 0, 2, 3}},
                        Case{{200000, 200000}, {1, 1}, {100000, 99996, 100000, 99996}},
                        Case{{1 << 30, 40000}, {1, 1}, {(1 << 29) - 2, (1 << 29) - 2, 20000, 19996}}}) {
    for (const std::string key : {"max_pool", "avg_pool"}) {
      SCOPED_TRACE(key + " " + std::to_string(c.kernel[0]));
      Random random(5);
      sample::NetworkWriter net;
      const ValueId x = net.Input({1, 16, 4, 4});
      const ValueId pooled = net.Call(key, {{"x", {x}},
                                            {"kernel_sizes", {net.Constant(Tensor::IntVector(c.kernel))}},
                                            {"strides", {net.Constant(Tensor::IntVector(c.strides))}},
                                            {"pad_type", {net.Constant(Tensor::Text("custom"))}},
                                            {"pad", {net.Constant(Tensor::IntVector(c.pads))}}});
      ExpectSame(net.Finish(pooled, false), random.Floats({1, 16, 4, 4}), {1e-5, 1e-4});
    }
  }
}

TEST(Executable, RunsAStackOfConvolutions) {
  Random random(2);
  ExpectSame(sample::ConvolutionStack(4, 48, 24), random.Floats({1, 48, 24, 24}), {1e-4, 1e-4});
}

/// A gated block with layer normalisation, as restoration networks have them: x + conv(a * sigmoid(pool(b))).
program::Program GatedNetwork() {
  sample::NetworkWriter net;
  const auto constant = [&](Tensor tensor) { return net.Constant(std::move(tensor)); };
  const ValueId image = net.Input({1, 3, 16, 20});
  const ValueId x = net.Conv(image, 3, 32, 3);
  const ValueId normal = net.Call("layer_norm", {{"x", {x}}, {"axes", {constant(Tensor::IntVector({1}))}}});
  const ValueId wide = net.Conv(normal, 32, 64, 1);
  const ValueId a = net.Call("slice_by_size", {{"x", {wide}},
                                               {"begin", {constant(Tensor::IntVector({0, 0, 0, 0}))}},
                                               {"size", {constant(Tensor::IntVector({1, 32, 16, 20}))}}});
  const ValueId b = net.Call("slice_by_size", {{"x", {wide}},
                                               {"begin", {constant(Tensor::IntVector({0, 32, 0, 0}))}},
                                               {"size", {constant(Tensor::IntVector({1, 32, 16, 20}))}}});
  const ValueId gated = net.Call("mul", {{"x", {a}}, {"y", {net.Call("gelu", {{"x", {b}}})}}});
  const ValueId mean = net.Call(
      "reduce_mean",
      {{"x", {gated}}, {"axes", {constant(Tensor::IntVector({2, 3}))}}, {"keep_dims", {constant(Tensor::Bool(true))}}});
  const ValueId weight = net.Call("sigmoid", {{"x", {net.Conv(mean, 32, 32, 1)}}});
  const ValueId attended = net.Call("mul", {{"x", {gated}}, {"y", {weight}}});
  const ValueId sum = net.Add(x, net.Conv(attended, 32, 32, 1));
  const ValueId noise = net.Conv(sum, 32, 3, 3);
  return net.Finish(net.Call("sub", {{"x", {image}}, {"y", {noise}}}), true);
}

TEST(Executable, RunsAGatedNetwork) {
  Random random(3);
  ExpectSame(GatedNetwork(), random.Floats({1, 3, 16, 20}, 0.0F, 1.0F), {1e-4, 1e-4});
}

TEST(Executable, RunsNothingOfCommonNetworksByReference) {
  EXPECT_THAT(DeclinedIn(GatedNetwork()), ::testing::IsEmpty());
  EXPECT_THAT(DeclinedIn(sample::ResidualUNet({16, 32}, 1, 16, 16)), ::testing::IsEmpty());
}

TEST(Executable, GivesTheSameAgainAndFollowsItsInput) {
  Executable executable(sample::ResidualUNet({16, 32}, 1, 16, 16));
  const auto runWith = [&](float value) {
    std::fill(executable.input().begin(), executable.input().end(), value);
    executable.Run();
    return std::vector<float>(executable.output().begin(), executable.output().end());
  };
  const std::vector<float> first = runWith(0.5F);
  const std::vector<float> other = runWith(0.25F);
  EXPECT_EQ(runWith(0.5F), first);
  EXPECT_NE(other, first);
  EXPECT_EQ(executable.input().front(), 0.5F) << "the input must not be overwritten";
}

// ---- the interface

TEST(Executable, SaysItsShapes) {
  Executable executable(sample::ResidualUNet({16, 32}, 1, 16, 24));
  EXPECT_EQ(executable.inputShape(), (Shape{1, 3, 16, 24}));
  EXPECT_EQ(executable.outputShape(), (Shape{1, 3, 16, 24}));
  EXPECT_EQ(executable.input().size(), 3U * 16 * 24);
  EXPECT_EQ(executable.output().size(), 3U * 16 * 24);
  EXPECT_GT(executable.arenaBytes(), 0U);
  EXPECT_GT(executable.weightBytes(), 0U);
  EXPECT_EQ(executable.StepNames().size(), executable.TimeSteps().size());
}

TEST(Executable, AnInputCanBeTheOutput) {
  ProgramBuilder builder;
  builder.Output(builder.Input("x", {1, 3, 2, 2}));
  Random random(1);
  const Tensor input = random.Floats({1, 3, 2, 2});
  EXPECT_EQ(RunCompiled(builder.program, input), program::FloatsOf(input));
}

TEST(Executable, AConstantCanBeTheOutput) {
  ProgramBuilder builder;
  builder.Input("x", {1});
  builder.Output(builder.Constant(Tensor::Floats({3}, {1.0F, 2.0F, 3.0F})));
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({1}, {7.0F})), ElementsAre(1.0F, 2.0F, 3.0F));
}

TEST(Executable, AReshapedInputCanBeTheOutput) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 4});
  const ValueId shape = builder.Constant(Tensor::IntVector({2, 2}));
  builder.Output(builder.Call("reshape", {{"x", {x}}, {"shape", {shape}}}, program::FloatType({2, 2})));
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({1, 4}, {1, 2, 3, 4})), ElementsAre(1, 2, 3, 4));
}

TEST(Executable, AnOutputMayBeReadByOtherOperations) {
  // relu is the output and feeds an operation behind it that would like its memory.
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId relu = builder.Call("relu", {{"x", {x}}}, program::FloatType({4}));
  builder.Call("square", {{"x", {relu}}}, program::FloatType({4}));
  builder.Output(relu);
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({4}, {-1, 2, -3, 4})), ElementsAre(0, 2, 0, 4));
}

TEST(Executable, MemoryOfAnAliasIsNotTakenOver) {
  // The reshaped relu is read after the tanh of relu could have been written over it.
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {2, 2});
  const ValueId relu = builder.Call("relu", {{"x", {x}}}, program::FloatType({2, 2}));
  const ValueId shape = builder.Constant(Tensor::IntVector({4}));
  const ValueId flat = builder.Call("reshape", {{"x", {relu}}, {"shape", {shape}}}, program::FloatType({4}));
  const ValueId square = builder.Call("square", {{"x", {relu}}}, program::FloatType({2, 2}));
  const ValueId again = builder.Call("reshape", {{"x", {square}}, {"shape", {shape}}}, program::FloatType({4}));
  builder.Output(builder.Call("sub", {{"x", {again}}, {"y", {flat}}}, program::FloatType({4})));
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({2, 2}, {-1, 2, 3, 4})), ElementsAre(0, 2, 6, 12));
}

/// Both halves of x along axis 1, each of that type.
std::vector<ValueId> SplitInTwo(ProgramBuilder& builder, ValueId x, const TensorType& half) {
  const ValueId count = builder.Constant(Tensor::Int(2));
  const ValueId axis = builder.Constant(Tensor::Int(1));
  const ValueId first = builder.Call("split", {{"x", {x}}, {"num_splits", {count}}, {"axis", {axis}}}, half);
  const ValueId second = builder.program.AddValue({"second", half, {}});
  builder.program.operations.back().results.push_back(second);
  return {first, second};
}

TEST(Executable, PartsThatLieTogetherAreNotCopied) {
  const TensorType half = program::FloatType({1, 32, 3, 5});
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 64, 3, 5});
  const ValueId relu = builder.Call("relu", {{"x", {x}}}, program::FloatType({1, 64, 3, 5}));
  const std::vector<ValueId> parts = SplitInTwo(builder, relu, half);
  builder.Output(builder.Call("mul", {{"x", {parts[0]}}, {"y", {parts[1]}}}, half));
  for (const LayoutPreference layout : {LayoutPreference::Plain, LayoutPreference::Blocked}) {
    ExecutableOptions options;
    options.layout = layout;
    for (const std::string& step : Executable(builder.program, options).StepNames()) {
      EXPECT_THAT(step, Not(HasSubstr("split")));
    }
  }
  Random random(1);
  ExpectSame(builder.program, random.Floats({1, 64, 3, 5}));
}

TEST(Executable, MemoryOfPartsIsNotTakenOver) {
  // When tanh reads relu for the last time, a half of it is still wanted; when square reads one half for the last time,
  // the other one is.
  const TensorType whole = program::FloatType({1, 64, 3, 5});
  const TensorType half = program::FloatType({1, 32, 3, 5});
  ProgramBuilder builder;
  const ValueId relu = builder.Call("relu", {{"x", {builder.Input("x", whole.shape)}}}, whole);
  const std::vector<ValueId> parts = SplitInTwo(builder, relu, half);
  const ValueId square = builder.Call("square", {{"x", {parts[0]}}}, half);
  const ValueId tanh = builder.Call("tanh", {{"x", {relu}}}, whole);
  const ValueId more = builder.Call("tanh", {{"x", {parts[1]}}}, half);
  const ValueId twice = builder.Call("add", {{"x", {more}}, {"y", {parts[1]}}}, half);
  const ValueId sum = builder.Call("add", {{"x", {square}}, {"y", {twice}}}, half);
  const ValueId axis = builder.Constant(Tensor::Int(1));
  builder.Output(
      builder.Call("concat", {{"values", {tanh, sum}}, {"axis", {axis}}}, program::FloatType({1, 96, 3, 5})));
  Random random(1);
  ExpectSame(builder.program, random.Floats(whole.shape));
}

TEST(Executable, PartsOfPartsOfTheInputAreReadWhereTheyLie) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 4, 1, 2});
  const std::vector<ValueId> parts = SplitInTwo(builder, x, program::FloatType({1, 2, 1, 2}));
  builder.Output(SplitInTwo(builder, parts[1], program::FloatType({1, 1, 1, 2}))[1]);
  EXPECT_THAT(RunCompiled(builder.program, Tensor::Floats({1, 4, 1, 2}, {1, 2, 3, 4, 5, 6, 7, 8})), ElementsAre(7, 8));
}

TEST(Executable, RefusesOtherInterfaces) {
  ProgramBuilder two;
  two.Output(two.Input("a", {1}));
  two.Input("b", {1});
  EXPECT_THAT(RefusalOf(two.program), HasSubstr("2 inputs"));

  ProgramBuilder none;
  none.Input("a", {1});
  EXPECT_THAT(RefusalOf(none.program), HasSubstr("0 outputs"));

  ProgramBuilder open;
  open.Output(open.Input("a", {1, kUnknownDim}));
  EXPECT_THAT(RefusalOf(open.program), HasSubstr("'a'"));

  ProgramBuilder ints;
  ints.Input("x", {1});
  ints.Output(ints.Constant(Tensor::IntVector({1})));
  EXPECT_THAT(RefusalOf(ints.program), HasSubstr("int32"));
}

TEST(Executable, RefusesAnArenaBeyondTheLimit) {
  // 2^31 floats are 8 GiB; three of them live at once.
  ProgramBuilder builder;
  const Shape huge = {1 << 16, 1 << 15};
  const ValueId x = builder.Input("x", {1});
  const ValueId reps = builder.Constant(Tensor::IntVector({1 << 16, 1 << 15}));
  const ValueId shape = builder.Constant(Tensor::IntVector({1, 1}));
  const ValueId small = builder.Call("reshape", {{"x", {x}}, {"shape", {shape}}}, program::FloatType({1, 1}));
  Operands parts;
  for (int i = 0; i < 3; ++i) {
    parts.push_back(builder.Call("tile", {{"x", {small}}, {"reps", {reps}}}, program::FloatType(huge)));
  }
  const ValueId sum = builder.Call("add", {{"x", {parts[0]}}, {"y", {parts[1]}}}, program::FloatType(huge));
  const ValueId all = builder.Call("add", {{"x", {sum}}, {"y", {parts[2]}}}, program::FloatType(huge));
  const ValueId keep = builder.Constant(Tensor::Bool(false));
  builder.Output(builder.Call("reduce_max", {{"x", {all}}, {"keep_dims", {keep}}}, program::FloatType({})));
  EXPECT_THAT(RefusalOf(builder.program), HasSubstr("limit"));
}

TEST(Executable, ReportsTheOperationThatFailsInARun) {
  // An index that is only known, and wrong, when the network runs.
  ProgramBuilder builder(7);
  const ValueId x = builder.Input("x", {3});
  const ValueId type = builder.Constant(Tensor::Text("int32"));
  const ValueId index = builder.Call("cast", {{"x", {x}}, {"dtype", {type}}}, program::IntType({3}));
  const ValueId table = builder.Constant(Tensor::Floats({2}, {1.0F, 2.0F}));
  builder.Output(builder.Call("gather", {{"x", {table}}, {"indices", {index}}}, program::FloatType({3}), "lookup"));
  Executable executable(builder.program);
  std::fill(executable.input().begin(), executable.input().end(), 1.0F);
  executable.Run();
  EXPECT_EQ(executable.output().front(), 2.0F);
  executable.input().front() = 5.0F;
  try {
    executable.Run();
    FAIL() << "ran";
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Run);
    EXPECT_THAT(error.what(), HasSubstr("gather 'lookup'"));
  }
}

// ---- what a run must not do

#if defined(__aarch64__)
/// The library's matrix products keep a small table for each block of their work, so there are more of them.
constexpr bool kTableForEachBlock = true;
#else
constexpr bool kTableForEachBlock = false;
#endif

TEST(Executable, ARunAllocatesNoMemoryForTensors) {
  if (!LUMVANE_COUNTS_ALLOCATIONS) GTEST_SKIP() << "allocations cannot be counted under a sanitizer";
  std::size_t small = 0;
  for (const std::int64_t size : {32, 128}) {
    Executable executable(sample::ResidualUNet({16, 32, 48}, 1, size, size));
    executable.Run();
    allocatedBytes = largestAllocation = 0;
    executable.Run();
    // The library keeps tables of arguments, of some hundred bytes, for each call; ours is nothing. They do not grow
    // with the tensors.
    const std::size_t steps = executable.StepNames().size();
    EXPECT_LT(largestAllocation, 4096U);
    if (kTableForEachBlock) continue;
    EXPECT_LT(allocatedBytes, steps * 4096);
    if (small == 0) {
      small = allocatedBytes;
    } else {
      EXPECT_LE(allocatedBytes, small + steps * 512);
    }
  }
}

TEST(Executable, KernelsOfOursAllocateNothing) {
  if (!LUMVANE_COUNTS_ALLOCATIONS) GTEST_SKIP() << "allocations cannot be counted under a sanitizer";
  sample::NetworkWriter net;
  const ValueId x = net.Input({1, 16, 32, 32});
  const ValueId shuffled = net.PixelShuffle(x, 2);
  const ValueId factor = net.Constant(Tensor::Int(2));
  const ValueId nearest = net.Call("upsample_nearest_neighbor", {{"x", {shuffled}}, {"scale_factor_height", {factor}}});
  const ValueId linear = net.Call("upsample_bilinear", {{"x", {nearest}}, {"scale_factor_width", {factor}}});
  const ValueId axes = net.Constant(Tensor::IntVector({2, 3}));
  const ValueId keep = net.Constant(Tensor::Bool(true));
  const ValueId mean = net.Call("reduce_mean", {{"x", {linear}}, {"axes", {axes}}, {"keep_dims", {keep}}});
  const ValueId norm = net.Call("instance_norm", {{"x", {linear}}});
  ExecutableOptions options;
  options.layout = LayoutPreference::Plain;  // no reorders, which are the library's
  Executable executable(net.Finish(net.Call("mul", {{"x", {norm}}, {"y", {mean}}}), false), options);
  executable.Run();
  allocatedBytes = 0;
  executable.Run();
  EXPECT_EQ(allocatedBytes, 0U);
}

TEST(Executable, EveryThreadHasItsModeBackAfterARun) {
  omp_set_num_threads(2);
  Executable executable(sample::ConvolutionStack(2, 16, 64));
  executable.Run();
  std::vector<std::uint64_t> modes(static_cast<std::size_t>(omp_get_max_threads()), 1);
#pragma omp parallel
  modes[static_cast<std::size_t>(omp_get_thread_num())] = FloatControl() & FlushBits();
  for (const std::uint64_t mode : modes) EXPECT_EQ(mode, 0U);
}

TEST(Executable, SubnormalInputsCountAsZero) {
  if (FlushBits() == 0) GTEST_SKIP() << "no such mode on this processor";
  Executable executable(sample::ConvolutionStack(2, 16, 16));
  std::fill(executable.input().begin(), executable.input().end(), 1e-40F);
  executable.Run();
  EXPECT_THAT(executable.output(), ::testing::Each(0.0F));
}

}  // namespace
}  // namespace ulmora::engine::cpu
