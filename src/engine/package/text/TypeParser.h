#pragma once
// Types of the textual program.
//
//   1. type   = "tensor" "<" scalar "," "[" [ size { "," size } ] "]" ">" | scalar | other
//   2. scalar = fp16, fp32, fp64, bf16, fp8e4m3fn, fp8e5m2, bool, string, int4 to int64, uint1 to uint64; alone it is a
//               tensor of rank 0
//   3. size   = a number, or "?" for a dimension that is open
//   4. other  = "list", "tuple", "dict" or "state" with anything between "<" and ">"
//   5. Further entries behind the sizes and brackets behind a type are remarks of the compiler and left out.

#include "engine/Tensor.h"
#include "engine/package/text/Lexer.h"

namespace ulmora::engine::package::text {

struct TextType {
  bool isTensor = true;  ///< false for lists, tuples, dictionaries and states
  TensorType type;
};

/// True if a type can begin with this word.
[[nodiscard]] bool IsTypeWord(std::string_view word) noexcept;

/// Takes a type. Throws Error(Open) if there is none, or one with impossible dimensions or beyond limits::kMaxRank.
[[nodiscard]] TextType ParseType(Lexer& lexer);

}  // namespace ulmora::engine::package::text
