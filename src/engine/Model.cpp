#include "engine/Model.h"

#include "engine/cpu/Executable.h"
#include "engine/package/ReadModel.h"
#include "engine/program/MultiplyAdds.h"
#include "engine/program/Specialize.h"
#include "engine/program/import/MilImport.h"
#include "engine/program/import/NeuralNetworkImport.h"
#include "engine/program/passes/Pipeline.h"

#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace ulmora::engine {
namespace {

using program::Program;
using program::ValueId;

/// The program's values that the described features name, in the order of the description: a caller knows no other.
std::vector<ValueId> InOrderOf(const std::vector<Feature>& features, const Program& program,
                               const std::vector<ValueId>& values, const char* what) {
  std::unordered_map<std::string_view, ValueId> byName;
  for (const ValueId id : values) byName.emplace(program.at(id).name, id);
  std::vector<ValueId> ordered;
  for (const Feature& feature : features) {
    const auto found = byName.find(feature.name);
    if (found == byName.end()) {
      throw Error(Stage::Translate,
                  std::string("the description has an ") + what + " '" + feature.name + "' that the program lacks");
    }
    ordered.push_back(found->second);
  }
  return ordered;
}

/// Makes the program's interface that of the description.
void AlignInterface(Program& program, const package::ModelSource& source) {
  std::vector<ValueId> inputs = InOrderOf(source.inputs, program, program.inputs, "input");
  const std::unordered_set<ValueId> described(inputs.begin(), inputs.end());
  for (const ValueId id : program.inputs) {
    if (!described.contains(id)) {
      throw Error(Stage::Translate,
                  "the program has an input '" + program.at(id).name + "' that the description lacks");
    }
  }
  // The program may give more than the description promises; nobody can ask for that.
  program.outputs = InOrderOf(source.outputs, program, program.outputs, "output");
  program.inputs = std::move(inputs);
}

void RequireOneTensor(const std::vector<Feature>& features, const char* what) {
  if (features.size() != 1) {
    throw Error(Stage::Run, "the model has " + std::to_string(features.size()) + " " + what + "s, expected 1");
  }
  if (features.front().kind != FeatureKind::Tensor) {
    throw Error(Stage::Run, std::string(what) + " '" + features.front().name + "' is not a multi-array");
  }
}

/// The program may be able to run more shapes than its author promises; what lies beyond was never meant to work. How
/// tensors of another rank than the declared one are taken, only the program knows.
void RequireDeclaredShape(const Feature& input, const Shape& shape) {
  const std::size_t rank = input.enumerated.empty() ? input.ranges.size() : input.enumerated.front().size();
  if (shape.size() != rank || Accepts(input, shape)) return;
  throw Error(Stage::Run,
              "input '" + input.name + "' has shape " + ToString(shape) + ", expected " + DescribeAccepted(input));
}

cpu::Executable Compile(const Program& source, const Shape& shape) {
  Program specialized = program::Specialize(source, {shape});
  program::Rewrite(specialized);
  return cpu::Executable(specialized);
}

}  // namespace

struct Model::State {
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  Program program;
  std::optional<cpu::Executable> executable;
};

Model::Model(const std::filesystem::path& path) : state_(std::make_unique<State>()) {
  try {
    package::ModelSource source = package::ReadModel(path);
    state_->program = source.network ? program::ImportNeuralNetwork(source) : program::ImportMil(source);
    AlignInterface(state_->program, source);
    state_->inputs = std::move(source.inputs);
    state_->outputs = std::move(source.outputs);
  } catch (const std::bad_alloc&) {
    throw Error(Stage::Translate, "the network needs more memory than there is");
  }
}

Model::~Model() = default;
Model::Model(Model&&) noexcept = default;
Model& Model::operator=(Model&&) noexcept = default;

const std::vector<Feature>& Model::inputs() const noexcept {
  return state_->inputs;
}

const std::vector<Feature>& Model::outputs() const noexcept {
  return state_->outputs;
}

std::span<float> Model::BindInput(const Shape& shape) {
  std::optional<cpu::Executable>& executable = state_->executable;
  if (executable && executable->inputShape() == shape) return executable->input();
  RequireOneTensor(state_->inputs, "input");
  RequireOneTensor(state_->outputs, "output");
  executable.reset();  // the old arena goes before the new one comes
  RequireDeclaredShape(state_->inputs.front(), shape);
  try {
    executable.emplace(Compile(state_->program, shape));
  } catch (const Error& error) {
    throw Error(Stage::Run, error.what());
  } catch (const std::bad_alloc&) {
    throw Error(Stage::Run, "the network needs more memory than there is for input " + ToString(shape));
  }
  // A float16 input is filled with float32 values all the same: rounding them first would only lose what the
  // arithmetic, which is float32 throughout, can use.
  return executable->input();
}

OutputView Model::Run() {
  if (!state_->executable) throw Error(Stage::Run, "no input was given to the network");
  cpu::Executable& executable = *state_->executable;
  executable.Run();
  return {state_->outputs.front().element, executable.outputShape(), executable.output()};
}

std::vector<StepTime> Model::TimeSteps() {
  if (!state_->executable) throw Error(Stage::Run, "no input was given to the network");
  std::vector<StepTime> steps;
  for (cpu::StepLabel& label : state_->executable->StepLabels()) {
    steps.push_back({std::move(label.operation), std::move(label.runner), 0});
  }
  const std::vector<double> times = state_->executable->TimeSteps();
  for (std::size_t i = 0; i < steps.size(); ++i) steps[i].microseconds = times[i];
  return steps;
}

std::int64_t Model::MultiplyAdds(const Shape& shape) const {
  RequireOneTensor(state_->inputs, "input");
  try {
    return program::MultiplyAdds(program::Specialize(state_->program, {shape}));
  } catch (const Error& error) {
    throw Error(Stage::Run, error.what());
  } catch (const std::bad_alloc&) {
    throw Error(Stage::Run, "the network needs more memory than there is for input " + ToString(shape));
  }
}

}  // namespace ulmora::engine
