#include "tests/engine/program/import/layers/LayerTesting.h"

#include "engine/Error.h"
#include "engine/package/ReadModel.h"
#include "engine/program/Interpret.h"
#include "engine/program/Specialize.h"
#include "engine/program/import/NeuralNetworkImport.h"
#include "tests/engine/package/PackageTesting.h"

#include <cmath>

namespace ulmora::engine::program::testing {
namespace {

NetworkWriter OneLayer(const Tensor& input, const Configure& configure, const std::vector<Tensor>& others) {
  NetworkWriter network(input.shape());
  std::vector<std::string> inputs = {"x"};
  for (std::size_t i = 0; i < others.size(); ++i) {
    inputs.emplace_back(1, static_cast<char>('b' + i));
    network.AddConstant(inputs.back(), others[i]);
  }
  coreml::layers::Layer& layer = network.Add("tested", inputs, {"y"});
  configure(layer);
  return network;
}

}  // namespace

NetworkWriter::NetworkWriter(const Shape& input, bool exact) {
  model_.set_specificationversion(exact ? 4 : 1);
  for (auto* feature : {model_.mutable_description()->add_input(), model_.mutable_description()->add_output()}) {
    feature->mutable_type()->mutable_multiarraytype()->set_datatype(coreml::ArrayFeatureType::FLOAT32);
  }
  coreml::FeatureDescription& x = *model_.mutable_description()->mutable_input(0);
  x.set_name("x");
  for (const std::int64_t size : input) x.mutable_type()->mutable_multiarraytype()->add_shape(size);
  model_.mutable_description()->mutable_output(0)->set_name("y");
  if (exact) {
    model_.mutable_neuralnetwork()->set_arrayinputshapemapping(coreml::layers::Network::EXACT_ARRAY_MAPPING);
  }
}

coreml::layers::Layer& NetworkWriter::Add(const std::string& name, const std::vector<std::string>& inputs,
                                          const std::vector<std::string>& outputs) {
  coreml::layers::Layer& layer = *model_.mutable_neuralnetwork()->add_layers();
  layer.set_name(name);
  for (const std::string& input : inputs) layer.add_input(input);
  for (const std::string& output : outputs) layer.add_output(output);
  return layer;
}

void NetworkWriter::AddConstant(const std::string& name, const Tensor& tensor) {
  auto& constant = *Add("load_" + name, {}, {name}).mutable_loadconstantnd();
  for (const std::int64_t size : tensor.shape()) constant.add_shape(static_cast<std::uint64_t>(size));
  SetWeights(*constant.mutable_data(), {tensor.floats().begin(), tensor.floats().end()});
}

package::ModelSource NetworkWriter::Read() const {
  const package::testing::TemporaryFolder folder;
  return package::ReadModel(folder.Write("network.mlmodel", model_.SerializeAsString()));
}

Tensor NetworkWriter::Run(const Tensor& input) const {
  const Program program = ImportNeuralNetwork(Read());
  return Interpret(Specialize(program, {input.shape()}), input);
}

std::string NetworkWriter::Refusal() const {
  try {
    static_cast<void>(ImportNeuralNetwork(Read()));
  } catch (const Error& error) {
    return error.what();
  }
  ADD_FAILURE() << "the network was not refused";
  return {};
}

Tensor RunLayer(const Tensor& input, const Configure& configure, const std::vector<Tensor>& others) {
  return OneLayer(input, configure, others).Run(input);
}

std::string RefusalOfLayer(const Tensor& input, const Configure& configure, const std::vector<Tensor>& others) {
  return OneLayer(input, configure, others).Refusal();
}

std::vector<float> Mapped(const Tensor& tensor, const std::function<double(double)>& function) {
  std::vector<float> values;
  for (const float value : tensor.floats()) values.push_back(static_cast<float>(function(value)));
  return values;
}

void ExpectNear(const Tensor& found, const Shape& shape, const std::vector<float>& expected, float tolerance) {
  EXPECT_EQ(found.shape(), shape);
  ASSERT_EQ(found.floats().size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(found.floats()[i], expected[i], tolerance * std::max(1.0F, std::abs(expected[i]))) << "element " << i;
  }
}

void SetWeights(coreml::layers::Weights& weights, const std::vector<float>& values) {
  weights.mutable_floatvalue()->Add(values.begin(), values.end());
}

}  // namespace ulmora::engine::program::testing
