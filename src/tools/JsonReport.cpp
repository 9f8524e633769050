#include "tools/JsonReport.h"

#include "tools/JsonWriter.h"

#include <vector>

namespace ulmora::tools {
namespace {

using engine::Feature;
using engine::FeatureKind;
using engine::Shape;
using engine::SizeRange;

constexpr const char* kReportSchema = "quorvanthine.model.report.v1";
constexpr const char* kCheckSchema = "quorvanthine.model.check.v1";

void WriteShape(JsonWriter& json, const Shape& shape) {
  json.BeginArray();
  for (const std::int64_t size : shape) json.Whole(size);
  json.EndArray();
}

/// An open end is null.
void WriteRange(JsonWriter& json, const SizeRange& range) {
  json.BeginArray();
  json.Whole(range.least);
  if (range.most == SizeRange::kUnbounded) {
    json.Null();
  } else {
    json.Whole(range.most);
  }
  json.EndArray();
}

const char* NameOf(FeatureKind kind) {
  switch (kind) {
    case FeatureKind::Tensor:
      return "tensor";
    case FeatureKind::Image:
      return "image";
    case FeatureKind::Other:
      break;
  }
  return "other";
}

void WriteFeature(JsonWriter& json, const Feature& feature) {
  json.BeginObject();
  json.Text("name", feature.name);
  json.Text("kind", NameOf(feature.kind));
  if (feature.kind == FeatureKind::Tensor) json.Text("element", std::string(engine::NameOf(feature.element)));
  if (!feature.shape.empty()) {
    json.Key("shape");
    WriteShape(json, feature.shape);
  }
  if (!feature.enumerated.empty()) {
    json.Key("shapes");
    json.BeginArray();
    for (const Shape& shape : feature.enumerated) WriteShape(json, shape);
    json.EndArray();
  } else if (!feature.ranges.empty()) {
    json.Key("ranges");
    json.BeginArray();
    for (const SizeRange& range : feature.ranges) WriteRange(json, range);
    json.EndArray();
  }
  json.EndObject();
}

void WriteFeatures(JsonWriter& json, const char* key, const std::vector<Feature>& features) {
  json.Key(key);
  json.BeginArray();
  for (const Feature& feature : features) WriteFeature(json, feature);
  json.EndArray();
}

void WriteWeights(JsonWriter& json, const std::vector<engine::WeightForm>& weights) {
  json.Key("weights");
  json.BeginArray();
  for (const engine::WeightForm& form : weights) {
    json.BeginObject();
    json.Text("form", form.form);
    json.Whole("tensors", form.tensors);
    json.Whole("elements", form.elements);
    json.Whole("bytes", form.bytes);
    json.EndObject();
  }
  json.EndArray();
}

void WriteEngine(JsonWriter& json, const std::string& refusal) {
  json.Key("engine");
  json.BeginObject();
  json.Bool("runs", refusal.empty());
  if (!refusal.empty()) json.Text("reason", refusal);
  json.EndObject();
}

void WriteTimes(JsonWriter& json, const char* key, const std::vector<LayerTime>& times) {
  json.Key(key);
  json.BeginArray();
  for (const LayerTime& time : times) {
    json.BeginObject();
    json.Text("name", time.name);
    json.Text("runners", time.runners);
    json.Number("milliseconds", time.milliseconds);
    json.EndObject();
  }
  json.EndArray();
}

void WriteTimes(JsonWriter& json, const RunTimes& times) {
  json.Key("times");
  json.BeginObject();
  json.Key("input_shape");
  WriteShape(json, times.shape);
  json.Number("first_run_milliseconds", times.firstRunMilliseconds);
  WriteTimes(json, "layers", ByLayer(times.steps));
  WriteTimes(json, "kinds", ByKind(times.steps));
  json.EndObject();
}

}  // namespace

void WriteJsonReport(std::ostream& stream, const std::string& path, const engine::Inspection& model,
                     const std::optional<Cost>& cost, const std::optional<RunTimes>& times) {
  JsonWriter json(stream);
  json.BeginObject();
  json.Text("schema", kReportSchema);
  json.Text("path", path);
  json.Text("type", model.type);
  json.Text("bundle", model.bundle);
  json.Whole("specification_version", model.specificationVersion);
  if (!model.operationSet.empty()) json.Text("operation_set", model.operationSet);
  WriteFeatures(json, "inputs", model.inputs);
  WriteFeatures(json, "outputs", model.outputs);
  json.Key("metadata");
  json.BeginObject();
  for (const auto& [key, text] : model.metadata) json.Text(key, text);
  json.EndObject();
  json.Key("operations");
  json.BeginObject();
  for (const auto& [operation, count] : model.operations) json.Whole(operation, count);
  json.EndObject();
  WriteWeights(json, model.weights);
  WriteEngine(json, model.refusal);
  if (cost) {
    json.Key("cost");
    json.BeginObject();
    json.Key("input_shape");
    WriteShape(json, cost->shape);
    json.Whole("multiply_adds", cost->multiplyAdds);
    json.EndObject();
  }
  if (times) WriteTimes(json, *times);
  json.EndObject();
  stream.put('\n');
}

void WriteJsonCheck(std::ostream& stream, const std::string& path, const CheckResult& result) {
  JsonWriter json(stream);
  json.BeginObject();
  json.Text("schema", kCheckSchema);
  json.Text("path", path);
  json.Key("input_shape");
  WriteShape(json, result.inputShape);
  json.Key("output_shape");
  WriteShape(json, result.outputShape);
  json.Number("recorded_range", result.difference.range);
  json.Number("largest_difference", result.difference.largest);
  json.Whole("at_element", static_cast<std::int64_t>(result.difference.index));
  json.Number("share", result.difference.Share());
  json.Number("tolerance", result.tolerance);
  json.Bool("passed", result.passes);
  json.EndObject();
  stream.put('\n');
}

}  // namespace ulmora::tools
