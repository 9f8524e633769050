#include "engine/Inspection.h"

#include "engine/Error.h"
#include "engine/Model.h"
#include "engine/WeightForms.h"
#include "engine/package/Bundle.h"
#include "engine/package/LayerStorage.h"
#include "engine/package/ReadModel.h"

#include <utility>

namespace ulmora::engine {
namespace {

std::string NameOfForm(package::BundleForm form) {
  switch (form) {
    case package::BundleForm::Package:
      return "package (.mlpackage)";
    case package::BundleForm::Compiled:
      return "compiled model (.mlmodelc)";
    case package::BundleForm::SingleFile:
      return "single file (.mlmodel)";
  }
  return "model";
}

/// What keeps a network that opens from being run, as Model::BindInput has it; empty if nothing does.
std::string Refusal(const std::vector<Feature>& features, const char* what) {
  if (features.size() != 1) return "it has " + std::to_string(features.size()) + " " + what + "s, expected 1";
  if (features.front().kind != FeatureKind::Tensor) {
    return std::string("its ") + what + " '" + features.front().name + "' is not a multi-array";
  }
  return "";
}

/// Opens the model for no other reason than to hear what is wrong with it.
std::string Refusal(const std::filesystem::path& path) {
  try {
    const Model model(path);
    const std::string input = Refusal(model.inputs(), "input");
    return input.empty() ? Refusal(model.outputs(), "output") : input;
  } catch (const Error& error) {
    return error.what();
  }
}

}  // namespace

Inspection Inspect(const std::filesystem::path& path) {
  Inspection result;
  result.bundle = NameOfForm(package::OpenBundle(path).form);
  package::ModelSource source = package::ReadModel(path);
  result.type = source.network ? "neural network" : "ML program";
  result.specificationVersion = source.specificationVersion;
  result.operationSet = source.program.opset;
  for (const package::SourceOperation& operation : source.program.operations) {
    if (operation.type != "const") ++result.operations[operation.type];
  }
  if (source.network) {
    for (const package::SourceLayer& layer : source.network->layers) ++result.operations[layer.kind];
  }
  result.weights = source.network ? WeightFormsOf(package::ReadLayerStorage(path)) : WeightFormsOf(source.program);
  result.inputs = std::move(source.inputs);
  result.outputs = std::move(source.outputs);
  result.metadata = std::move(source.metadata);
  result.refusal = Refusal(path);
  return result;
}

}  // namespace ulmora::engine
