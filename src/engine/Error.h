#pragma once
// The engine's one exception type: a message for people, and the stage at which the package or the run failed.

#include <stdexcept>
#include <string>

namespace ulmora::engine {

/// Where a failure belongs. Callers choose their own wording by it.
enum class Stage {
  Open,       ///< the bundle, its manifest or the model message cannot be read
  Translate,  ///< the network in it cannot be understood: unknown operation, bad parameter, impossible shape
  Load,       ///< constants cannot be loaded from the weight file
  Run,        ///< the network cannot be prepared for, or run on, the tensor that was given
};

/// Every failure of the engine. what() is one line: what failed, on what, what was found and what was expected,
/// as in "conv 'enc2_conv1': weight has 64 input channels, expected 32 (groups=1)".
class Error : public std::runtime_error {
 public:
  Error(Stage stage, const std::string& message) : std::runtime_error(message), stage_(stage) {}

  [[nodiscard]] Stage stage() const noexcept { return stage_; }

 private:
  Stage stage_;
};

}  // namespace ulmora::engine
