#include "engine/WeightForms.h"

#include "engine/package/ElementDecoding.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace ulmora::engine {
namespace {

using package::Binding;
using package::SourceOperation;
using package::SourceProgram;

/// The operations that unpack constants: what they are called, the parameter whose elements are the packed weights, and
/// the form in words.
struct Unpacking {
  std::string_view operation;
  std::string_view packed;
  std::string_view form;
};

constexpr Unpacking kUnpackings[] = {
    {"constexpr_affine_dequantize", "quantized_data", "quantized"},
    {"constexpr_blockwise_shift_scale", "data", "quantized in blocks"},
    {"constexpr_cast", "source_val", "cast"},
    {"constexpr_lut_to_dense", "indices", "palettized"},
    {"constexpr_lut_to_sparse", "indices_nonzero_data", "palettized"},
    {"constexpr_sparse_blockwise_shift_scale", "nonzero_data", "quantized in blocks"},
    {"constexpr_sparse_to_dense", "nonzero_data", "sparse"},
};

const Unpacking* FindUnpacking(const std::string& operation) {
  const auto* found = std::ranges::find(kUnpackings, operation, &Unpacking::operation);
  return found == std::end(kUnpackings) ? nullptr : found;
}

bool IsWeight(const Tensor& tensor) {
  constexpr std::int64_t kShortList = 10;
  if (tensor.storage() == Storage::String || tensor.shape().empty()) return false;
  return tensor.storage() == Storage::Float || tensor.count() >= kShortList;
}

std::vector<WeightForm> MostBytesFirst(std::map<std::string, WeightForm> forms) {
  std::vector<WeightForm> sorted;
  for (auto& [name, form] : forms) sorted.push_back(std::move(form));
  std::ranges::stable_sort(sorted, std::ranges::greater(), &WeightForm::bytes);
  return sorted;
}

class Summary {
 public:
  explicit Summary(const SourceProgram& program) {
    for (const SourceOperation& operation : program.operations) {
      if (operation.type == "const") {
        AddConstant(operation);
      } else if (const Unpacking* unpacking = FindUnpacking(operation.type)) {
        AddUnpacked(operation, *unpacking);
      } else {
        AddInline(operation);
      }
    }
  }

  std::vector<WeightForm> Run() {
    std::map<std::string, WeightForm> forms;
    for (const Weight& weight : weights_) {
      if (weight.absorbed) continue;
      WeightForm& form = forms[weight.form];
      form.form = weight.form;
      ++form.tensors;
      form.elements += weight.elements;
      for (const Tensor& part : weight.parts) form.bytes += BytesOnce(part);
    }
    return MostBytesFirst(std::move(forms));
  }

 private:
  struct Weight {
    std::string form;
    std::int64_t elements = 0;
    std::vector<Tensor> parts;  ///< what is stored of it
    bool absorbed = false;      ///< part of another weight
  };

  void AddConstant(const SourceOperation& operation) {
    const auto value = operation.attributes.find("val");
    if (value == operation.attributes.end() || operation.results.size() != 1) return;
    constants_.emplace(operation.results.front().name, value->second);
    if (IsWeight(value->second)) AddPlain(operation.results.front().name, value->second);
  }

  void AddPlain(const std::string& name, const Tensor& tensor) {
    if (!name.empty()) byName_.emplace(name, weights_.size());
    weights_.push_back({std::string(NameOf(tensor.element())), tensor.count(), {tensor}, false});
  }

  void AddInline(const SourceOperation& operation) {
    for (const auto& [name, bindings] : operation.inputs) {
      for (const Binding& binding : bindings) {
        const auto* tensor = std::get_if<Tensor>(&binding);
        if (tensor != nullptr && IsWeight(*tensor)) AddPlain("", *tensor);
      }
    }
  }

  void AddUnpacked(const SourceOperation& operation, const Unpacking& unpacking) {
    Weight weight{std::string(unpacking.form), 0, {}, false};
    for (const auto& [name, tensor] : operation.attributes) AddPart(weight, tensor, name == unpacking.packed);
    for (const auto& [name, bindings] : operation.inputs) {
      for (const Binding& binding : bindings) Absorb(weight, binding, name == unpacking.packed);
    }
    if (operation.results.empty()) return;
    const TensorType& type = operation.results.back().type;
    // The other result of two is the mask that tells where the elements are.
    if (type.rankKnown && IsStatic(type.shape)) weight.elements = ElementCount(type.shape);
    for (const package::NamedType& result : operation.results) byName_.emplace(result.name, weights_.size());
    weights_.push_back(std::move(weight));
  }

  static void AddPart(Weight& weight, const Tensor& tensor, bool isPacked) {
    if (isPacked) weight.form += " (" + std::string(NameOf(tensor.element())) + ")";
    weight.parts.push_back(tensor);
  }

  /// Takes in an operand: an inline constant, a constant with a name, or what another operation has unpacked.
  void Absorb(Weight& weight, const Binding& binding, bool isPacked) {
    if (const auto* tensor = std::get_if<Tensor>(&binding)) {
      AddPart(weight, *tensor, isPacked);
      return;
    }
    const std::string& name = std::get<std::string>(binding);
    const auto known = byName_.find(name);
    const auto constant = constants_.find(name);
    if (constant != constants_.end()) {
      AddPart(weight, constant->second, isPacked);
      if (known != byName_.end()) weights_[known->second].absorbed = true;
    } else if (known != byName_.end() && !weights_[known->second].absorbed) {
      Weight& inner = weights_[known->second];
      inner.absorbed = true;
      weight.form += ", " + inner.form;
      for (Tensor& part : inner.parts) weight.parts.push_back(std::move(part));
    }
  }

  std::int64_t BytesOnce(const Tensor& tensor) {
    if (!counted_.insert(tensor.identity()).second) return 0;
    return tensor.storage() == Storage::Bool ? tensor.count() : package::PackedBytes(tensor.element(), tensor.count());
  }

  std::vector<Weight> weights_;
  std::unordered_map<std::string, std::size_t> byName_;
  std::unordered_map<std::string, Tensor> constants_;
  std::set<const void*> counted_;
};

}  // namespace

std::vector<WeightForm> WeightFormsOf(const SourceProgram& program) {
  return Summary(program).Run();
}

std::vector<WeightForm> WeightFormsOf(const std::vector<package::StoredWeights>& weights) {
  std::map<std::string, WeightForm> forms;
  for (const package::StoredWeights& each : weights) {
    WeightForm& form = forms[each.form];
    form.form = each.form;
    ++form.tensors;
    form.elements += each.elements;
    form.bytes += each.bytes;
  }
  return MostBytesFirst(std::move(forms));
}

}  // namespace ulmora::engine
