#include "engine/cpu/Executable.h"

#include "engine/Error.h"
#include "engine/cpu/Compiler.h"
#include "engine/cpu/FlushSubnormals.h"

#include <chrono>
#include <new>

namespace ulmora::engine::cpu {

struct Executable::State {
  std::unique_ptr<Compiled> compiled;
  FlushSubnormals flush;

  [[nodiscard]] static std::span<float> Floats(const AlignedBuffer& buffer) {
    return {static_cast<float*>(buffer.data()), buffer.size() / sizeof(float)};
  }

  static void Run(const LabelledStep& step) {
    try {
      step.step->Run();
    } catch (const dnnl::error& error) {
      throw Error(Stage::Run, step.label + ": " + error.what());
    } catch (const std::bad_alloc&) {
      throw Error(Stage::Run, step.label + ": not enough memory");
    } catch (const Error& error) {
      throw Error(Stage::Run, error.what());
    }
  }
};

Executable::Executable(const program::Program& program, const ExecutableOptions& options)
    : state_(std::make_unique<State>()) {
  state_->compiled = Compile(program, options);
}

Executable::~Executable() = default;
Executable::Executable(Executable&&) noexcept = default;
Executable& Executable::operator=(Executable&&) noexcept = default;

std::span<float> Executable::input() noexcept {
  return State::Floats(state_->compiled->input);
}
const Shape& Executable::inputShape() const noexcept {
  return state_->compiled->inputShape;
}
std::span<const float> Executable::output() const noexcept {
  return State::Floats(state_->compiled->output);
}
const Shape& Executable::outputShape() const noexcept {
  return state_->compiled->outputShape;
}

void Executable::Run() {
  const FlushSubnormals::Scope scope(state_->flush);
  for (const LabelledStep& step : state_->compiled->steps) State::Run(step);
}

std::size_t Executable::arenaBytes() const noexcept {
  return state_->compiled->arena.size();
}
std::size_t Executable::weightBytes() const noexcept {
  return state_->compiled->weights.bytes();
}

std::vector<StepLabel> Executable::StepLabels() const {
  std::vector<StepLabel> labels;
  for (const LabelledStep& step : state_->compiled->steps) labels.push_back({step.label, step.runner});
  return labels;
}

std::vector<std::string> Executable::StepNames() const {
  std::vector<std::string> names;
  for (const StepLabel& label : StepLabels()) names.push_back(label.operation + ": " + label.runner);
  return names;
}

std::vector<double> Executable::TimeSteps() {
  const FlushSubnormals::Scope scope(state_->flush);
  std::vector<double> microseconds;
  for (const LabelledStep& step : state_->compiled->steps) {
    const auto start = std::chrono::steady_clock::now();
    State::Run(step);
    microseconds.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  return microseconds;
}

}  // namespace ulmora::engine::cpu
