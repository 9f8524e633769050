#include "tests/engine/package/PackageTesting.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
namespace ulmora::engine::package::testing {

std::filesystem::path TemporaryFolder::Write(const std::string& relative, const std::string& bytes) const {
  const std::filesystem::path file = path() / relative;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::binary);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!stream) throw std::runtime_error("cannot write " + file.string());
  return file;
}

std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + file.string());
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::filesystem::path Fixtures() {
  return std::filesystem::path(LUMVANE_SOURCE_DIR) / "tests" / "fixtures" / "packages";
}

std::string ManifestText(const std::string& path) {
  return R"({"fileFormatVersion": "1.0.0", "rootModelIdentifier": "M", "itemInfoEntries": {"M": {"path": ")" + path +
         R"(", "name": "model.mlmodel", "author": "com.apple.CoreML", "description": ""}}})";
}

std::filesystem::path WritePackage(const TemporaryFolder& folder, const std::string& message,
                                   const std::string& weights) {
  folder.Write("test.mlpackage/Manifest.json", ManifestText());
  folder.Write("test.mlpackage/Data/com.apple.CoreML/model.mlmodel", message);
  if (!weights.empty()) folder.Write("test.mlpackage/Data/com.apple.CoreML/weights/weight.bin", weights);
  return folder.path() / "test.mlpackage";
}

std::filesystem::path WritePackage(const TemporaryFolder& folder, const coreml::Model& model,
                                   const std::string& weights) {
  return WritePackage(folder, model.SerializeAsString(), weights);
}

std::string LittleEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xFFU);
  return text;
}

WeightFileBuilder::WeightFileBuilder()
    : bytes_(LittleEndian(0, 4) + LittleEndian(2, 4) + std::string(std::size_t{56}, '\0')) {}

std::uint64_t WeightFileBuilder::Add(std::uint32_t typeNumber, const std::string& data, std::uint64_t unusedBits) {
  bytes_.resize((bytes_.size() + 63) / 64 * 64, '\0');
  const std::uint64_t offset = bytes_.size();
  bytes_ += LittleEndian(0xDEADBEEF, 4) + LittleEndian(typeNumber, 4) + LittleEndian(data.size(), 8) +
            LittleEndian(offset + 64, 8) + LittleEndian(unusedBits, 8) + std::string(std::size_t{32}, '\0') + data;
  return offset;
}

void SetTensorType(coreml::ValueType& type, coreml::DataType element, const std::vector<std::int64_t>& dimensions) {
  coreml::TensorType& tensor = *type.mutable_tensortype();
  tensor.set_datatype(element);
  tensor.set_rank(static_cast<std::int64_t>(dimensions.size()));
  for (const std::int64_t size : dimensions) {
    coreml::Dimension& dimension = *tensor.add_dimensions();
    if (size < 0) {
      dimension.mutable_unknown();
    } else {
      dimension.mutable_constant()->set_size(static_cast<std::uint64_t>(size));
    }
  }
}

coreml::Model IdentityModel() {
  coreml::Model model;
  model.set_specificationversion(6);
  const auto describe = [](coreml::FeatureDescription& feature, const std::string& name) {
    feature.set_name(name);
    feature.mutable_type()->mutable_multiarraytype()->set_datatype(coreml::ArrayFeatureType::FLOAT32);
  };
  describe(*model.mutable_description()->add_input(), "x");
  describe(*model.mutable_description()->add_output(), "y");
  model.mutable_mlprogram()->set_version(1);
  coreml::Function& function = (*model.mutable_mlprogram()->mutable_functions())["main"];
  function.set_opset("CoreML5");
  coreml::NamedValueType& input = *function.add_inputs();
  input.set_name("x");
  SetTensorType(*input.mutable_type(), coreml::FLOAT32, {1, 3, -1, -1});
  coreml::Block& block = (*function.mutable_block_specializations())["CoreML5"];
  block.add_outputs("y");
  coreml::Operation& operation = *block.add_operations();
  operation.set_type("identity");
  (*operation.mutable_inputs())["x"].add_arguments()->set_name("x");
  coreml::NamedValueType& output = *operation.add_outputs();
  output.set_name("y");
  SetTensorType(*output.mutable_type(), coreml::FLOAT32, {1, 3, -1, -1});
  return model;
}

coreml::Block& BlockOf(coreml::Model& model) {
  return (*(*model.mutable_mlprogram()->mutable_functions())["main"].mutable_block_specializations())["CoreML5"];
}

coreml::Value& AddConst(coreml::Model& model, const std::string& name, coreml::DataType element,
                        const std::vector<std::int64_t>& dimensions) {
  auto& operations = *BlockOf(model).mutable_operations();
  coreml::Operation& operation = *operations.Add();
  for (int i = operations.size() - 1; i > 0; --i) operations.SwapElements(i, i - 1);
  // The elements are held by pointer: the reference follows the operation to the front.
  operation.set_type("const");
  coreml::NamedValueType& output = *operation.add_outputs();
  output.set_name(name);
  SetTensorType(*output.mutable_type(), element, dimensions);
  coreml::Value& value = (*operation.mutable_attributes())["val"];
  SetTensorType(*value.mutable_type(), element, dimensions);
  return value;
}

}  // namespace ulmora::engine::package::testing
