#include "tools/Report.h"

#include "tools/Format.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace ulmora::tools {
namespace {

using engine::Feature;
using engine::FeatureKind;

std::string DescribeFeature(const Feature& feature) {
  const std::string shape = feature.shape.empty() ? "of any shape" : engine::ToString(feature.shape);
  switch (feature.kind) {
    case FeatureKind::Tensor:
      return std::string(engine::NameOf(feature.element)) + " " + shape;
    case FeatureKind::Image:
      return "image " + shape;
    case FeatureKind::Other:
      break;
  }
  return "neither a multi-array nor an image";
}

void WriteFeatures(std::ostream& stream, const char* title, const std::vector<Feature>& features) {
  stream << title << '\n';
  std::vector<std::vector<std::string>> rows;
  for (const Feature& feature : features) rows.push_back({Printable(feature.name), DescribeFeature(feature)});
  WriteTable(stream, {Align::Left, Align::Left}, rows);
}

void WriteMetadata(std::ostream& stream, const std::map<std::string, std::string>& metadata) {
  if (metadata.empty()) return;
  stream << "Metadata\n";
  std::vector<std::vector<std::string>> rows;
  for (const auto& [key, text] : metadata) rows.push_back({Printable(key), Printable(text)});
  WriteTable(stream, {Align::Left, Align::Left}, rows);
}

void WriteOperations(std::ostream& stream, const std::map<std::string, std::int64_t>& operations) {
  std::vector<std::pair<std::string, std::int64_t>> sorted(operations.begin(), operations.end());
  std::ranges::stable_sort(sorted, std::ranges::greater(), &std::pair<std::string, std::int64_t>::second);
  std::int64_t sum = 0;
  std::vector<std::vector<std::string>> rows;
  for (const auto& [name, count] : sorted) {
    sum += count;
    rows.push_back({Grouped(count), Printable(name)});
  }
  stream << "Operations: " << Grouped(sum) << '\n';
  WriteTable(stream, {Align::Right, Align::Left}, rows);
}

void WriteWeights(std::ostream& stream, const std::vector<engine::WeightForm>& weights) {
  std::int64_t elements = 0;
  std::int64_t bytes = 0;
  std::vector<std::vector<std::string>> rows;
  for (const engine::WeightForm& form : weights) {
    elements += form.elements;
    bytes += form.bytes;
    rows.push_back({form.form, Grouped(form.tensors) + " tensors", Grouped(form.elements) + " elements",
                    Grouped(form.bytes) + " bytes"});
  }
  stream << "Weights: " << Grouped(elements) << " elements in " << Grouped(bytes) << " bytes\n";
  WriteTable(stream, {Align::Left, Align::Right, Align::Right, Align::Right}, rows);
}

}  // namespace

void WriteReport(std::ostream& stream, const std::string& path, const engine::Inspection& model) {
  stream << "Model: " << Printable(path) << '\n';
  stream << "Kind: " << model.type << " in a " << model.bundle << '\n';
  stream << "Version: specification " << model.specificationVersion;
  if (!model.operationSet.empty()) stream << ", operation set " << Printable(model.operationSet);
  stream << '\n';
  WriteFeatures(stream, "Inputs", model.inputs);
  WriteFeatures(stream, "Outputs", model.outputs);
  WriteMetadata(stream, model.metadata);
  WriteOperations(stream, model.operations);
  WriteWeights(stream, model.weights);
  const bool runs = model.refusal.empty();
  stream << "Portable engine: " << (runs ? "runs it" : "does not run it: " + Printable(model.refusal)) << '\n';
}

void WriteCost(std::ostream& stream, const Cost& cost) {
  constexpr double kGiga = 1e9;
  stream << "Multiply-adds: " << Fixed(static_cast<double>(cost.multiplyAdds) / kGiga, 3) << " G for an input of "
         << engine::ToString(cost.shape) << '\n';
}

}  // namespace ulmora::tools
