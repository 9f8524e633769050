#include "engine/package/ReadModel.h"

#include "engine/package/Bundle.h"
#include "engine/package/CompiledModel.h"
#include "engine/package/ConstantReader.h"
#include "engine/package/DescriptionReader.h"
#include "engine/package/ModelMessage.h"
#include "engine/package/ProgramReader.h"
#include "engine/package/Text.h"
#include "schema/Model.pb.h"

#include <new>
#include <utility>

namespace ulmora::engine::package {
namespace {

/// The format's own name of a kind of model.
const char* KindName(coreml::Model::TypeCase kind) {
  using coreml::Model;
  switch (kind) {
    case Model::kPipelineClassifier:
      return "pipelineClassifier";
    case Model::kPipelineRegressor:
      return "pipelineRegressor";
    case Model::kPipeline:
      return "pipeline";
    case Model::kNeuralNetworkRegressor:
      return "neuralNetworkRegressor";
    case Model::kNeuralNetworkClassifier:
      return "neuralNetworkClassifier";
    case Model::kNeuralNetwork:
      return "neuralNetwork";
    case Model::kItemSimilarityRecommender:
      return "itemSimilarityRecommender";
    case Model::kMlProgram:
      return "mlProgram";
    case Model::kCustomModel:
      return "customModel";
    case Model::kLinkedModel:
      return "linkedModel";
    case Model::kIdentity:
      return "identity";
    case Model::kSerializedModel:
      return "serializedModel";
    default:
      return "unknown";
  }
}

ModelSource Convert(const coreml::Model& model, const Bundle& bundle) {
  if (!model.has_mlprogram()) {
    throw Error(Stage::Translate, "the model is of type " + std::string(KindName(model.Type_case())) +
                                      ", expected an ML program (mlProgram)");
  }
  Description description = ReadDescription(model.description());
  ConstantReader constants(bundle);
  ModelSource source;
  source.specificationVersion = model.specificationversion();
  source.program = ReadProgram(model.mlprogram(), description.functionName, constants);
  source.inputs = std::move(description.inputs);
  source.outputs = std::move(description.outputs);
  source.metadata = std::move(description.metadata);
  return source;
}

}  // namespace

ModelSource ReadModel(const std::filesystem::path& path) {
  const auto where = [&] { return Quoted(path.string()); };
  try {
    const Bundle bundle = OpenBundle(path);
    if (bundle.form == BundleForm::Compiled) return ReadCompiledModel(bundle);
    const ModelMessage message(bundle.model);
    return Within([&] { return Quoted(bundle.model.string()); }, [&] { return Convert(message.model(), bundle); });
  } catch (const std::bad_alloc&) {
    throw Error(Stage::Open, where() + " needs more memory than there is");
  }
}

}  // namespace ulmora::engine::package
