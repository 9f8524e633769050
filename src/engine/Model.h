#pragma once
// The engine's whole public face: open a model package, ask what goes in and comes out, run a tensor through it.

#include "engine/Error.h"
#include "engine/Feature.h"
#include "engine/Inspection.h"
#include "engine/Tensor.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace ulmora::engine {

/// What a run returned: a dense row-major view into memory of the model, valid until the next call on the model.
struct OutputView {
  ElementType element = ElementType::Float32;  ///< as declared; the elements are float32 whatever it says
  Shape shape;
  std::span<const float> data;
};

/// One step of a run: an operation, or a change of layout before one.
struct StepTime {
  std::string operation;  ///< the operation with its name, "conv 'head'"
  std::string runner;     ///< what runs it
  double microseconds = 0;
};

/// An opened network. Opening reads and checks everything but compiles nothing; the first tensor of a shape compiles
/// the network for that shape, and later tensors of the same shape reuse it. Not for concurrent use; it computes on the
/// threads of the process's OpenMP pool.
class Model {
 public:
  /// Opens a .mlpackage or .mlmodelc directory, or a .mlmodel file. Throws Error with Stage Open, Translate or Load.
  explicit Model(const std::filesystem::path& path);
  ~Model();
  Model(Model&&) noexcept;
  Model& operator=(Model&&) noexcept;

  [[nodiscard]] const std::vector<Feature>& inputs() const noexcept;
  [[nodiscard]] const std::vector<Feature>& outputs() const noexcept;

  /// Prepares a run on one tensor of this shape and returns the buffer to be filled with it: dense, row-major, as many
  /// floats as the shape has elements. Compiles if the shape differs from the last one. The buffer is valid until the
  /// next call of BindInput with another shape. Throws Error(Run) if the network cannot take the shape, or if the model
  /// has other than one input and one output.
  [[nodiscard]] std::span<float> BindInput(const Shape& shape);

  /// Runs the network over the buffer of the last BindInput. Throws Error(Run) if there was none or if it fails.
  [[nodiscard]] OutputView Run();

  /// Runs like Run and tells how long each step took, in the order of the run.
  [[nodiscard]] std::vector<StepTime> TimeSteps();

  /// Multiply-adds of the convolutions, matrix products and attentions for an input of this shape. Compiles nothing.
  /// Throws Error(Run) if the network cannot take the shape.
  [[nodiscard]] std::int64_t MultiplyAdds(const Shape& shape) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ulmora::engine
