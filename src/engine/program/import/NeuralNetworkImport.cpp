#include "engine/program/import/NeuralNetworkImport.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/program/Specialize.h"
#include "engine/program/import/layers/Families.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace ulmora::engine::program {
namespace {

using layers::Blob;
using layers::Blobs;
using package::ModelSource;
using package::NamedType;
using package::SourceLayer;
using package::SourceNetwork;

/// The operation set of the same age as the newest layers, whose rules are theirs: indices below zero count from the
/// end, and beyond the borders of an image its outermost pixels go on.
constexpr int kOpset = 5;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Translate, message);
}

/// Why layers of a kind that the format knows are not run.
std::string WhyNot(const std::string& kind) {
  static constexpr std::pair<std::string_view, std::string_view> kReasons[] = {
      {"simpleRecurrent", "recurrent layers are not supported"},
      {"gru", "recurrent layers are not supported"},
      {"uniDirectionalLSTM", "recurrent layers are not supported"},
      {"biDirectionalLSTM", "recurrent layers are not supported"},
      {"custom", "what it computes is not part of the model"},
      {"branch", "control flow is not supported"},
      {"loop", "control flow is not supported"},
      {"random", "results that differ from run to run are not supported"},
      {"categoricalDistribution", "results that differ from run to run are not supported"},
      {"whereNonZero", "results whose size depends on the image's contents are not supported"},
      {"NonMaximumSuppression", "detection of objects is not supported"},
  };
  for (const auto& [beginning, reason] : kReasons) {
    if (kind.starts_with(beginning)) return std::string(reason);
  }
  return "layers of this kind cannot be run";
}

class Importer {
 public:
  Program Run(const ModelSource& source) {
    program_.opset = kOpset;
    const SourceNetwork& network = *source.network;
    for (std::size_t i = 0; i < network.inputs.size(); ++i) {
      const bool isImage = source.inputs.at(i).kind == FeatureKind::Image;
      AddInput(network.inputs[i], isImage ? !network.exactImages : !network.exactArrays);
    }
    for (const SourceLayer& layer : network.layers) Translate(layer);
    for (const Feature& output : source.outputs) AddOutput(output, network);
    return std::move(program_);
  }

 private:
  void AddInput(const NamedType& input, bool withoutSequence) {
    const ValueId id = program_.AddValue({input.name, input.type, std::nullopt});
    program_.inputs.push_back(id);
    blobs_.insert_or_assign(input.name, Blob{id, input.type.shape.size(), withoutSequence});
  }

  void Translate(const SourceLayer& source) {
    layers::Layer layer(source, program_, blobs_);
    const layers::LayerRule* const rule = layers::FindRule(source.kind);
    if (rule == nullptr) {
      if (source.kind.empty()) Fail("layer '" + source.name + "' is of an unknown kind");
      layer.Fail(WhyNot(source.kind));
    }
    rule->translate(layer);
  }

  /// Values are found by the names of the features, so each output needs a value of its own.
  void AddOutput(const Feature& output, const SourceNetwork& network) {
    const auto found = blobs_.find(output.name);
    if (found == blobs_.end()) Fail("no layer makes the network's output '" + output.name + "'");
    const SourceLayer source{"output", output.name, {}, {}, {}, {}};
    layers::Layer layer(source, program_, blobs_);
    ValueId id = found->second.value;
    // Where the network counts a sequence, the interface does not.
    if (!network.exactArrays && found->second.LogicalRank() == 5 && !found->second.withoutSequence) {
      id = layer.Emit("squeeze", {{"x", id}, {"axes", Tensor::IntVector({0})}});
    }
    const Value& value = program_.at(id);
    const bool isInput = std::ranges::find(program_.inputs, id) != program_.inputs.end();
    if (value.constant || isInput || !taken_.insert(id).second) {
      id = layer.Emit("identity", {{"x", id}});
      taken_.insert(id);
    }
    program_.at(id).name = output.name;
    program_.outputs.push_back(id);
  }

  Program program_;
  Blobs blobs_;
  std::set<ValueId> taken_;  ///< values that are outputs
};

std::optional<std::vector<Shape>> KnownShapes(const Program& program, const std::vector<Feature>& features) {
  std::vector<Shape> shapes;
  for (const ValueId id : program.inputs) {
    const Value& input = program.at(id);
    const auto feature = std::ranges::find(features, input.name, &Feature::name);
    if (IsStatic(input.type.shape)) {
      shapes.push_back(input.type.shape);
    } else if (feature != features.end() && !feature->shape.empty()) {
      shapes.push_back(feature->shape);
    } else {
      return std::nullopt;
    }
  }
  return shapes;
}

}  // namespace

Program ImportNeuralNetwork(const ModelSource& source) {
  Program program = Importer().Run(source);
  if (const auto shapes = KnownShapes(program, source.inputs)) static_cast<void>(Specialize(program, *shapes));
  return program;
}

}  // namespace ulmora::engine::program
