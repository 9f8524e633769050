#pragma once
// Which elementwise operations ride on which others as fused steps: the contract between AttachPostOps, which creates
// them, and the CPU's lowering, which must execute every one that this table allows.
//
// Producers: conv, conv_transpose, linear, matmul, with a float result of rank 2 or more that is used once, by the
// step, and is no output of the program. At most kMaxFusedSteps on one producer, applied in order to its first result,
// each keeping shape and type.
//
//   step                                              flowing value   other operands
//   relu, relu6, sigmoid, silu, tanh, gelu, mish,     x               constant scalars
//   abs, square, leaky_relu, elu, sigmoid_hard,
//   hard_swish, clip, linear_activation
//   prelu                                             x               alpha, a constant [C]; on conv and
//                                                                     conv_transpose alone, channels along axis 1
//   add, mul, maximum, minimum                        x or y          one of the three kinds below
//   sub, real_div                                     x               one of the three kinds below
//
// a - y with y flowing becomes linear_activation(-1, 0) and add: a network that predicts noise ends like that.
//
// The other operand of a binary step is never the flowing value, and one of
//   Scalar    a constant with one element,
//   Channel   a constant with the size of the channel axis there and 1 in the dimensions after and before it; the
//             channel axis is 1 for conv and conv_transpose, the last one for linear and matmul,
//   Tensor    a constant or computed value of exactly the result's shape. It is computed before the producer: the
//             pass moves the producer behind it where necessary.

#include "engine/program/Program.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace ulmora::engine::program {

inline constexpr std::size_t kMaxFusedSteps = 4;

enum class StepKind : std::uint8_t { Activation, Prelu, Binary };

/// What kind of step the operation can become; none if it cannot.
[[nodiscard]] std::optional<StepKind> StepKindOf(std::string_view key);

/// True for the producers of the table.
[[nodiscard]] bool CarriesSteps(std::string_view key);

enum class StepOperand : std::uint8_t { Scalar, Channel, Tensor };

/// Index of the channel axis in the result of a producer.
[[nodiscard]] std::size_t ChannelAxis(const Program& program, const Operation& producer);

/// Of a binary step on `producer`: the kind of the operand that does not flow. A one-element constant is a Scalar even
/// where the result has a single element. None if it is none of the three.
[[nodiscard]] std::optional<StepOperand> StepOperandOf(const Program& program, const Operation& producer,
                                                       ValueId other);

}  // namespace ulmora::engine::program
