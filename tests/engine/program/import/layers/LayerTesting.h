#pragma once
// Neural networks written layer by layer, read from a file as users' are, and run by the reference evaluation.

#include "engine/Tensor.h"
#include "engine/package/ModelSource.h"
#include "schema/Model.pb.h"

#include <functional>
#include <string>
#include <vector>

namespace ulmora::engine::program::testing {

using Configure = std::function<void(coreml::layers::Layer& layer)>;

/// A network with one input "x" and one output "y". Arrays are taken as they are unless `exact` is false.
class NetworkWriter {
 public:
  explicit NetworkWriter(const Shape& input, bool exact = true);

  coreml::layers::Layer& Add(const std::string& name, const std::vector<std::string>& inputs,
                             const std::vector<std::string>& outputs);
  /// A layer that loads a constant of any rank under that name.
  void AddConstant(const std::string& name, const Tensor& tensor);
  [[nodiscard]] coreml::Model& model() noexcept { return model_; }

  /// What the package reader makes of the model.
  [[nodiscard]] package::ModelSource Read() const;
  /// The output for this input.
  [[nodiscard]] Tensor Run(const Tensor& input) const;
  /// The message with which reading or importing refuses the network; a test failure and "" if they do not.
  [[nodiscard]] std::string Refusal() const;

 private:
  coreml::Model model_;
};

/// The output of one layer from "x" to "y". Further inputs are constants: "b", "c", ...
[[nodiscard]] Tensor RunLayer(const Tensor& input, const Configure& configure, const std::vector<Tensor>& others = {});
[[nodiscard]] std::string RefusalOfLayer(const Tensor& input, const Configure& configure,
                                         const std::vector<Tensor>& others = {});

/// The same elements, mapped.
[[nodiscard]] std::vector<float> Mapped(const Tensor& tensor, const std::function<double(double)>& function);

void ExpectNear(const Tensor& found, const Shape& shape, const std::vector<float>& expected, float tolerance = 1e-5F);

void SetWeights(coreml::layers::Weights& weights, const std::vector<float>& values);

}  // namespace ulmora::engine::program::testing
