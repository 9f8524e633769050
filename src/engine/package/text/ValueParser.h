#pragma once
// Constants of the textual program.
//
//   1. value   = type "(" literal ")"
//   2. literal = element for rank 0, else "[" [ literal { "," literal } ] "]" once per dimension; or a record:
//   3. record  = "BLOBFILE" "(" "path" "=" value "," "offset" "=" value ")", elements in the weight file
//   4. element = number, inf, nan, true, false or string, as the type asks for it

#include "engine/package/ConstantReader.h"
#include "engine/package/text/Lexer.h"
#include "engine/package/text/TypeParser.h"

#include <optional>

namespace ulmora::engine::package::text {

/// Takes a value. Values of other types than tensors have no meaning to a network: they are skipped and nothing is
/// returned. Throws Error(Open) for a literal that does not fit its type, and what ConstantReader throws, with the
/// position in front.
[[nodiscard]] std::optional<Tensor> ParseValue(Lexer& lexer, ConstantReader& constants);

}  // namespace ulmora::engine::package::text
