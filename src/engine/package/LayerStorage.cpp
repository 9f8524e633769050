#include "engine/package/LayerStorage.h"

#include "engine/package/Bundle.h"
#include "engine/package/LayerWeights.h"
#include "engine/package/ModelMessage.h"
#include "schema/Model.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

namespace ulmora::engine::package {
namespace {

using coreml::layers::Layer;
using coreml::layers::Weights;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

/// Calls visit(name, weights) for all weights below the message that are used, by the names that LayoutOf knows.
template <typename Visit>
void VisitWeights(const Message& message, const std::string& prefix, const Visit& visit) {
  std::vector<const FieldDescriptor*> fields;
  message.GetReflection()->ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_repeated()) continue;
    const Message& nested = message.GetReflection()->GetMessage(message, field);
    const std::string name = prefix + std::string(field->name());
    if (const auto* weights = dynamic_cast<const Weights*>(&nested)) {
      if (IsUsed(message, *field) && HasPayload(*weights)) visit(name, *weights);
    } else {
      VisitWeights(nested, name + ".", visit);
    }
  }
}

}  // namespace

std::vector<StoredWeights> ReadLayerStorage(const std::filesystem::path& path) {
  const Bundle bundle = OpenBundle(path);
  if (bundle.form == BundleForm::Compiled) return {};
  const ModelMessage message(bundle.model);
  std::vector<StoredWeights> stored;
  for (const Layer& layer : message.model().neuralnetwork().layers()) {
    if (layer.layer_case() == Layer::LAYER_NOT_SET) continue;
    const FieldDescriptor& kind = *layer.GetDescriptor()->FindFieldByNumber(layer.layer_case());
    VisitWeights(layer.GetReflection()->GetMessage(layer, &kind), "",
                 [&](const std::string& name, const Weights& weights) {
                   stored.push_back(StorageOf(weights, LayoutOf(layer, name)));
                 });
  }
  return stored;
}

}  // namespace ulmora::engine::package
