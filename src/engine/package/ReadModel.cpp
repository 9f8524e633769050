#include "engine/package/ReadModel.h"

#include "engine/package/Bundle.h"
#include "engine/package/CompiledModel.h"
#include "engine/package/ConstantReader.h"
#include "engine/package/DescriptionReader.h"
#include "engine/package/ModelMessage.h"
#include "engine/package/NeuralNetworkReader.h"
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
    case Model::kGlmRegressor:
      return "glmRegressor";
    case Model::kSupportVectorRegressor:
      return "supportVectorRegressor";
    case Model::kTreeEnsembleRegressor:
      return "treeEnsembleRegressor";
    case Model::kBayesianProbitRegressor:
      return "bayesianProbitRegressor";
    case Model::kGlmClassifier:
      return "glmClassifier";
    case Model::kSupportVectorClassifier:
      return "supportVectorClassifier";
    case Model::kTreeEnsembleClassifier:
      return "treeEnsembleClassifier";
    case Model::kKNearestNeighborsClassifier:
      return "kNearestNeighborsClassifier";
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

/// Neural networks exist since the first version of the format. What a version adds that is not known is refused by its
/// name, but a number far from the known ones is damage.
void CheckVersion(std::int64_t version) {
  constexpr std::int64_t kNewest = 10;
  if (version >= 1 && version <= kNewest) return;
  throw Error(Stage::Translate, "the model is of specification version " + std::to_string(version) +
                                    ", expected 1 to " + std::to_string(kNewest));
}

void ReadNetwork(const coreml::Model& model, const Bundle& bundle, Description& description, ModelSource& source) {
  if (model.has_neuralnetwork()) {
    CheckVersion(source.specificationVersion);
    if (model.description().functions_size() > 0) {
      throw Error(Stage::Translate, "the model is a neural network, but describes functions");
    }
    source.network = ReadNeuralNetwork(model.neuralnetwork());
    ReadNetworkInterface(model.description(), description, *source.network);
    return;
  }
  ConstantReader constants(bundle);
  source.program = ReadProgram(model.mlprogram(), description.functionName, constants);
}

ModelSource Convert(const coreml::Model& model, const Bundle& bundle) {
  if (!model.has_mlprogram() && !model.has_neuralnetwork()) {
    throw Error(Stage::Translate, "the model is of type " + std::string(KindName(model.Type_case())) +
                                      ", expected an ML program (mlProgram) or a neural network (neuralNetwork)");
  }
  Description description = ReadDescription(model.description());
  ModelSource source;
  source.specificationVersion = model.specificationversion();
  ReadNetwork(model, bundle, description, source);
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
