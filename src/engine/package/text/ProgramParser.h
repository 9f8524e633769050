#pragma once
// The textual program of a compiled bundle, as plain structs. Nobody has published its grammar; this one is what real
// files show:
//
//    1. file      = "program" "(" version ")" [ attributes ] "{" { function } "}"
//    2. function  = "func" name "<" target ">" "(" [ parameter { "," parameter } ] ")" [ attributes ]
//                   "{" { statement } "}" "->" "(" [ name { "," name } ] ")" ";"
//    3. target    = ios15, ios16, ios17, ios18, ios26: operation sets CoreML5 to CoreML9
//    4. parameter = type name
//    5. statement = [ type name { "," type name } "=" ] operation "(" [ argument { "," argument } ] ")" [ attributes ]
//    ";"
//    6. argument  = name "=" ( operand | "(" [ operand { "," operand } ] ")" )
//    7. operand   = name | value
//    8. attributes = "[" name "=" value { "," name "=" value } "]"
//    9. How blocks within statements are written is not known. Everything from a "{" behind the parentheses to the ";"
//       is skipped, and the operation is marked as having blocks.

#include "engine/package/ConstantReader.h"
#include "engine/package/ModelSource.h"
#include "engine/package/text/FlexibleShapes.h"

#include <string>
#include <string_view>

namespace ulmora::engine::package {

struct TextProgram {
  SourceProgram function;
  FlexibleShapes flexibleShapes;  ///< of inputs with dimensions that are open, where the text gives them
};

/// Reads the function of that name; an empty name means "main", or the only function if there is but one. Throws
/// Error(Open) with line and column for text that does not follow the grammar, Error(Translate) if the function is
/// missing, if its target is unknown or if a limit on counts is passed, and what ConstantReader throws.
[[nodiscard]] TextProgram ReadTextProgram(std::string_view text, const std::string& functionName,
                                          ConstantReader& constants);

}  // namespace ulmora::engine::package
