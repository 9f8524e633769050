#pragma once
// The command line of lumvane-model.

#include "engine/Tensor.h"

#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace ulmora::tools {

/// A command line that nobody can follow; what() says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct CheckArguments {
  std::string input;   ///< file of float32 values, little endian, row-major
  std::string output;  ///< the same, of what the network is to make of them
};

struct Arguments {
  bool help = false;
  bool version = false;
  bool time = false;
  bool json = false;
  std::string model;
  std::optional<engine::Shape> shape;
  std::optional<CheckArguments> check;
  double tolerance = 1e-4;  ///< largest difference that is allowed, as a share of the range of the recorded output
};

/// What --help prints.
extern const char* const kUsage;

/// Understands the words behind the program's name. Throws UsageError.
[[nodiscard]] Arguments ParseArguments(std::span<const std::string> words);

}  // namespace ulmora::tools
