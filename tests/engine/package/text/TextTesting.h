#pragma once
// What the tests of the textual program's readers share.

#include "engine/package/ConstantReader.h"
#include "engine/package/text/Lexer.h"
#include "tests/engine/package/PackageTesting.h"

#include <string>
#include <utility>

namespace ulmora::engine::package::text::testing {

/// Where there are no weight files.
class NoConstants {
 public:
  ConstantReader& reader() { return reader_; }

 private:
  Bundle bundle_{"/nowhere/model.mil", BundleForm::Compiled};
  ConstantReader reader_{bundle_};
};

/// The result of `parse` on a lexer over `text`, all of which must have been taken.
template <typename Parse>
auto ParseAll(const std::string& text, const Parse& parse) {
  Lexer lexer(text);
  auto result = parse(lexer);
  if (lexer.Peek().kind != TokenKind::End) lexer.FailExpected("the end of the text");
  return result;
}

}  // namespace ulmora::engine::package::text::testing
