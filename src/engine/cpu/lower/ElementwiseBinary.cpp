// Arithmetic, comparisons and logic on two broadcasting tensors, by kernels of ours: such operations run at the speed
// of memory, whoever computes them.

#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Families.h"

#include <cmath>

namespace ulmora::engine::cpu {
namespace {

std::vector<BroadcastOperand> OperandsOf(const LowerCall& call) {
  return {{call.Operand("x"), std::nullopt}, {call.Operand("y"), std::nullopt}};
}

bool AreOf(const LowerCall& call, Storage storage) {
  const auto storageOf = [&](std::string_view parameter) { return StorageOf(call.call.Type(parameter).element); };
  return storageOf("x") == storage && storageOf("y") == storage;
}

/// A stateless function object type, so that each operation has a loop of its own for the compiler to vectorise.
template <typename Function, KeepsZero kKeepsZero = KeepsZero::No>
std::vector<Form> LowerArithmetic(const LowerCall& call) {
  if (!AreOf(call, Storage::Float)) return {};
  return BroadcastForms<float, float, float>(call, Function{}, OperandsOf(call), kKeepsZero);
}

template <typename Function>
std::vector<Form> LowerComparison(const LowerCall& call) {
  if (!AreOf(call, Storage::Float)) return {};
  return BroadcastForms<std::uint8_t, float, float>(call, Function{}, OperandsOf(call), KeepsZero::No);
}

template <typename Function>
std::vector<Form> LowerLogic(const LowerCall& call) {
  if (!AreOf(call, Storage::Bool)) return {};
  return BroadcastForms<std::uint8_t, std::uint8_t, std::uint8_t>(call, Function{}, OperandsOf(call), KeepsZero::No);
}

struct Add {
  float operator()(float x, float y) const { return x + y; }
};
struct Subtract {
  float operator()(float x, float y) const { return x - y; }
};
struct Multiply {
  float operator()(float x, float y) const { return x * y; }
};
struct Divide {
  float operator()(float x, float y) const { return x / y; }
};
struct FloorDivide {
  // In double: the float quotient may round up to a whole number that the true one does not reach.
  float operator()(float x, float y) const { return static_cast<float>(std::floor(static_cast<double>(x) / y)); }
};
struct Modulo {
  float operator()(float x, float y) const {
    const float rest = std::fmod(x, y);
    return rest != 0.0F && (rest < 0.0F) != (y < 0.0F) ? rest + y : rest;
  }
};
struct Power {
  float operator()(float x, float y) const { return std::pow(x, y); }
};
/// A NaN of either operand wins.
struct Maximum {
  float operator()(float x, float y) const { return x > y || x != x ? x : y; }
};
struct Minimum {
  float operator()(float x, float y) const { return x < y || x != x ? x : y; }
};

struct Equal {
  std::uint8_t operator()(float x, float y) const { return x == y; }
};
struct NotEqual {
  std::uint8_t operator()(float x, float y) const { return x != y; }
};
struct Less {
  std::uint8_t operator()(float x, float y) const { return x < y; }
};
struct LessEqual {
  std::uint8_t operator()(float x, float y) const { return x <= y; }
};
struct Greater {
  std::uint8_t operator()(float x, float y) const { return x > y; }
};
struct GreaterEqual {
  std::uint8_t operator()(float x, float y) const { return x >= y; }
};

struct And {
  std::uint8_t operator()(std::uint8_t x, std::uint8_t y) const { return x != 0 && y != 0; }
};
struct Or {
  std::uint8_t operator()(std::uint8_t x, std::uint8_t y) const { return x != 0 || y != 0; }
};
struct Xor {
  std::uint8_t operator()(std::uint8_t x, std::uint8_t y) const { return (x != 0) != (y != 0); }
};

}  // namespace

std::vector<LoweringEntry> ElementwiseBinaryLowerings() {
  return {{"add", LowerArithmetic<Add, KeepsZero::Yes>},
          {"equal", LowerComparison<Equal>},
          {"floor_div", LowerArithmetic<FloorDivide>},
          {"greater", LowerComparison<Greater>},
          {"greater_equal", LowerComparison<GreaterEqual>},
          {"less", LowerComparison<Less>},
          {"less_equal", LowerComparison<LessEqual>},
          {"logical_and", LowerLogic<And>},
          {"logical_or", LowerLogic<Or>},
          {"logical_xor", LowerLogic<Xor>},
          {"maximum", LowerArithmetic<Maximum, KeepsZero::Yes>},
          {"minimum", LowerArithmetic<Minimum, KeepsZero::Yes>},
          {"mod", LowerArithmetic<Modulo>},
          {"mul", LowerArithmetic<Multiply, KeepsZero::Yes>},
          {"not_equal", LowerComparison<NotEqual>},
          {"pow", LowerArithmetic<Power>},
          {"real_div", LowerArithmetic<Divide>},
          {"sub", LowerArithmetic<Subtract, KeepsZero::Yes>}};
}

}  // namespace ulmora::engine::cpu
