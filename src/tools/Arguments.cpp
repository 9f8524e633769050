#include "tools/Arguments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>
#include <utility>

namespace ulmora::tools {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw UsageError(message);
}

template <typename T>
T ParseNumber(std::string_view text, const std::string& what) {
  T value{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) Fail(what + " '" + std::string(text) + "' is not a number");
  return value;
}

/// Numbers with commas or "x" between them.
engine::Shape ParseShape(const std::string& text) {
  engine::Shape shape;
  std::string_view rest = text;
  for (;;) {
    const std::size_t length = std::min(rest.find_first_of(",x"), rest.size());
    const auto size = ParseNumber<std::int64_t>(rest.substr(0, length), "the dimension");
    if (size < 1) Fail("the shape '" + text + "' has a dimension below 1");
    shape.push_back(size);
    if (length == rest.size()) return shape;
    rest.remove_prefix(length + 1);
  }
}

double ParseTolerance(const std::string& text) {
  const auto tolerance = ParseNumber<double>(text, "the tolerance");
  if (!std::isfinite(tolerance) || tolerance < 0) Fail("the tolerance '" + text + "' is not 0 or above");
  return tolerance;
}

/// Takes words from the front, options and what belongs to them.
class Parser {
 public:
  explicit Parser(std::span<const std::string> words) : words_(words) {}

  Arguments Run() {
    while (!words_.empty()) Option(Take());
    if (result_.help || result_.version) return result_;
    if (result_.model.empty()) Fail("no model is given");
    if (toleranceIsSet_ && !result_.check) Fail("--tolerance belongs to --check");
    return result_;
  }

 private:
  void Option(const std::string& word) {
    if (word == "-h" || word == "--help") {
      result_.help = true;
    } else if (word == "--version") {
      result_.version = true;
    } else if (word == "--time") {
      result_.time = true;
    } else if (word == "--json") {
      result_.json = true;
    } else if (word == "--shape") {
      result_.shape = ParseShape(TakeFor(word));
    } else if (word == "--check") {
      std::string input = TakeFor(word);
      result_.check = CheckArguments{std::move(input), TakeFor(word)};
    } else if (word == "--tolerance") {
      result_.tolerance = ParseTolerance(TakeFor(word));
      toleranceIsSet_ = true;
    } else if (word == "--" && !words_.empty()) {
      Model(Take());
    } else if (word.starts_with('-')) {
      Fail("unknown option '" + word + "'");
    } else {
      Model(word);
    }
  }

  void Model(const std::string& path) {
    if (!result_.model.empty()) Fail("a second model is given: '" + path + "'");
    if (path.empty()) Fail("the name of the model is empty");
    result_.model = path;
  }

  std::string Take() {
    std::string word = words_.front();
    words_ = words_.subspan(1);
    return word;
  }

  std::string TakeFor(const std::string& option) {
    if (words_.empty()) Fail("a value is missing behind " + option);
    return Take();
  }

  std::span<const std::string> words_;
  Arguments result_;
  bool toleranceIsSet_ = false;
};

}  // namespace

const char* const kUsage = R"(Shows what is in a Core ML model, and what the portable engine makes of it.

  lumvane-model MODEL [--time] [--shape N,C,H,W] [--json]
  lumvane-model MODEL --check INPUT OUTPUT [--tolerance SHARE] [--shape N,C,H,W] [--json]

  MODEL              package (.mlpackage), compiled model (.mlmodelc) or single file (.mlmodel)
  --time             also run it and show how long each layer takes
  --shape N,C,H,W    shape of the input; 512 by 512 if the network takes it, else the shape that it declares
  --check IN OUT     run it on the float32 values of file IN and compare with those of file OUT (little endian,
                     row-major); the shape is the declared one or a square, unless --shape says otherwise
  --tolerance SHARE  largest difference that --check lets pass, as a share of the range of OUT (default 1e-4)
  --json             the same as one JSON document
  --help, --version

Exit status: 0 if all is well, 1 if a check was missed, 2 if the command line is wrong or the model cannot be read,
or cannot be run where it must be.
)";

Arguments ParseArguments(std::span<const std::string> words) {
  return Parser(words).Run();
}

}  // namespace ulmora::tools
