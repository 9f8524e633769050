#include "engine/cpu/Compiler.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/cpu/LayoutPlan.h"
#include "engine/cpu/Lowering.h"
#include "engine/cpu/MemoryPlan.h"
#include "engine/cpu/PixelRegions.h"
#include "engine/cpu/lower/PixelRegion.h"
#include "engine/cpu/lower/Reference.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Run, message);
}

/// Calls `work`; whatever it throws becomes an Error(Run) that names the operation.
template <typename Work>
decltype(auto) ForOperation(const program::Operation& operation, const Work& work) {
  try {
    return work();
  } catch (const dnnl::error& error) {
    Fail(Label(operation) + ": " + error.what());
  } catch (const std::bad_alloc&) {
    Fail(Label(operation) + ": not enough memory");
  }
}

const Shape& InterfaceShape(const program::Program& program, const std::vector<program::ValueId>& ids,
                            const std::string& which) {
  if (ids.size() != 1) {
    Fail("the network has " + std::to_string(ids.size()) + " " + which + "s, only networks with one can be run");
  }
  const program::Value& value = program.at(ids.front());
  if (!value.type.rankKnown || !IsStatic(value.type.shape))
    Fail("the shape of " + which + " '" + value.name + "' is open");
  if (StorageOf(value.type.element) != Storage::Float) {
    Fail(which + " '" + value.name + "' is of type " + std::string(NameOf(value.type.element)) + ", expected floats");
  }
  return value.type.shape;
}

/// Which values an operation may overwrite.
class Lifetimes {
 public:
  explicit Lifetimes(const program::Program& program) : remaining_(program.values.size(), 0) {
    for (const program::Operation& operation : program.operations) {
      ForEachOperand(operation, [&](program::ValueId id) { ++Remaining(id); });
    }
    // Inputs and outputs never die; constants have no buffer to overwrite.
    for (const program::ValueId id : program.inputs) ++Remaining(id);
    for (const program::ValueId id : program.outputs) ++Remaining(id);
    for (std::size_t i = 0; i < program.values.size(); ++i) {
      if (program.values[i].constant) ++remaining_[i];
    }
  }

  /// The values that `operation` reads exactly once and nothing reads later. Operations must come in order.
  [[nodiscard]] std::vector<program::ValueId> DyingAt(const program::Operation& operation) {
    std::vector<program::ValueId> read;
    ForEachOperand(operation, [&](program::ValueId id) { read.push_back(id); });
    std::vector<program::ValueId> dying;
    for (const program::ValueId id : read) {
      if (Remaining(id) == 1) dying.push_back(id);
    }
    for (const program::ValueId id : read) --Remaining(id);
    return dying;
  }

 private:
  std::int64_t& Remaining(program::ValueId id) { return remaining_[static_cast<std::size_t>(id)]; }

  std::vector<std::int64_t> remaining_;
};

std::vector<Form> FormsOf(const program::Program& program, const program::Operation& operation,
                          const ExecutableOptions& options, const PixelRegions& regions,
                          const std::vector<program::ValueId>& diesHere) {
  return ForOperation(operation, [&] {
    if (operation.definition == &PixelRegionDefinition()) {
      return PixelRegionForms(program, operation, regions.at(operation.results.front()));
    }
    const program::OpCall call(program, operation);
    const LowerCall lowerCall{program, operation, call, options, diesHere};
    const Lower lower = FindLowering(operation.definition->key);
    std::vector<Form> forms;
    if (lower != nullptr && !TouchesNothing(lowerCall)) forms = lower(lowerCall);
    if (forms.empty()) forms.push_back(ReferenceForm(lowerCall));
    return forms;
  });
}

/// The choice of the layout plan, or of the preference that overrides it: the cheapest form that works in that layout
/// altogether, or else one that writes it.
std::vector<std::size_t> ChooseByOptions(const LayoutProblem& problem, const ExecutableOptions& options) {
  if (options.layout == LayoutPreference::Cheapest) return ChooseForms(problem);
  const Layout wanted = options.layout == LayoutPreference::Plain          ? Layout::Plain
                        : options.layout == LayoutPreference::ChannelsLast ? Layout::ChannelsLast
                                                                           : Layout::Blocked;
  std::vector<std::size_t> choice;
  for (const PlannedOperation& operation : problem.operations) {
    const auto misfit = [&](const PlannedForm& form) {
      const bool reads = std::ranges::all_of(form.needs, [&](const Need& need) { return need.layout == wanted; });
      return (form.result == wanted ? 0 : 2) + (reads ? 0 : 1);
    };
    const auto best = std::ranges::min_element(operation.forms, [&](const PlannedForm& a, const PlannedForm& b) {
      return misfit(a) != misfit(b) ? misfit(a) < misfit(b) : a.cost < b.cost;
    });
    choice.push_back(static_cast<std::size_t>(best - operation.forms.begin()));
  }
  return choice;
}

/// The fused steps that no form takes care of become operations of their own behind it.
class Unfuser {
 public:
  explicit Unfuser(program::Program& program) : program_(program) {}

  /// Cuts `operation` down to its first `kept` fused steps and returns the others as operations.
  std::vector<program::Operation> Cut(program::Operation& operation, std::size_t kept) {
    std::vector<program::Operation> others;
    const program::ValueId last = operation.results.front();
    const program::Value like = program_.at(last);
    program::Operation* previous = &operation;
    for (std::size_t i = kept; i < operation.fused.size(); ++i) {
      previous->results.front() = program_.AddValue({like.name, like.type, std::nullopt});
      const program::FusedStep& step = operation.fused[i];
      program::Operation next{step.definition, operation.name, step.arguments, {last}, {}};
      for (program::Operands& operands : next.arguments) {
        for (program::ValueId& id : operands) id = id == program::kPrevious ? previous->results.front() : id;
      }
      others.push_back(std::move(next));
      previous = &others.back();
    }
    operation.fused.resize(kept);
    return others;
  }

 private:
  program::Program& program_;
};

class Compilation {
 public:
  Compilation(const program::Program& program, const ExecutableOptions& options)
      : program_(program), options_(options), compiled_(std::make_unique<Compiled>()) {}

  std::unique_ptr<Compiled> Run() {
    compiled_->inputShape = InterfaceShape(program_, program_.inputs, "input");
    compiled_->outputShape = InterfaceShape(program_, program_.outputs, "output");
    regions_ = FormPixelRegions(program_, options_);
    ChooseAllForms();
    Emit();
    return std::move(compiled_);
  }

 private:
  void ChooseAllForms() {
    LayoutProblem problem;
    std::vector<std::vector<Form>> forms;
    Lifetimes lifetimes(program_);
    for (const program::Operation& operation : program_.operations) {
      forms.push_back(FormsOf(program_, operation, options_, regions_, lifetimes.DyingAt(operation)));
      PlannedOperation planned{{}, operation.results};
      for (const Form& form : forms.back()) planned.forms.push_back(form.plan);
      problem.operations.push_back(std::move(planned));
    }
    problem.outputs = program_.outputs;
    for (const program::Value& value : program_.values) {
      const bool moves = !value.constant && HasChannels(value.type.shape);
      problem.bytes.push_back(moves ? ByteCount(value.type, Layout::Plain) : 0);
    }
    const std::vector<std::size_t> choice = ChooseByOptions(problem, options_);
    for (std::size_t i = 0; i < choice.size(); ++i) chosen_.push_back(std::move(forms[i][choice[i]]));
  }

  /// Puts the operations that fused steps have become behind those that they were fused to, each with a form of the
  /// same layout.
  void SplitOff() {
    std::vector<program::Operation> operations;
    std::vector<Form> forms;
    Unfuser unfuser(program_);
    for (std::size_t i = 0; i < chosen_.size(); ++i) {
      program::Operation operation = std::move(program_.operations[i]);
      const Layout layout = chosen_[i].plan.result;
      std::vector<program::Operation> others = unfuser.Cut(operation, chosen_[i].fused);
      operations.push_back(std::move(operation));
      forms.push_back(std::move(chosen_[i]));
      for (program::Operation& other : others) {
        forms.push_back(FormWithResult(other, layout));
        operations.push_back(std::move(other));
      }
    }
    program_.operations = std::move(operations);
    chosen_ = std::move(forms);
  }

  Form FormWithResult(const program::Operation& operation, Layout layout) {
    std::vector<Form> forms = FormsOf(program_, operation, options_, regions_, {});
    for (Form& form : forms) {
      if (form.plan.result == layout) return std::move(form);
    }
    return std::move(forms.front());
  }

  void Emit() {
    SplitOff();
    const auto bytesOf = [&](program::ValueId id) {
      return static_cast<std::size_t>(ByteCount(program_.at(id).type, Layout::Plain));
    };
    try {
      compiled_->input = AlignedBuffer(bytesOf(program_.inputs.front()));
      compiled_->output = AlignedBuffer(bytesOf(program_.outputs.front()));
    } catch (const std::bad_alloc&) {
      Fail("not enough memory for the network's input and output");
    }
    Emitter emitter(program_, compiled_->weights, compiled_->input.data(), compiled_->output.data());
    for (std::size_t i = 0; i < chosen_.size(); ++i) {
      const program::Operation& operation = program_.operations[i];
      emitter.Begin(operation);
      ForOperation(operation, [&] { chosen_[i].emit(emitter, operation); });
      emitter.End();
    }
    emitter.Finish();
    Place(emitter);
  }

  void Place(Emitter& emitter) {
    std::vector<Block> blocks;
    std::vector<std::size_t> owners;
    for (std::size_t i = 0; i < emitter.buffers().size(); ++i) {
      const BufferRecord& buffer = emitter.buffers()[i];
      if (buffer.external != nullptr || buffer.first < 0) continue;
      blocks.push_back({buffer.bytes, buffer.first, buffer.last});
      owners.push_back(i);
    }
    const MemoryPlan plan = PlanMemory(blocks);
    if (plan.bytes > limits::kMaxArenaBytes) {
      Fail("intermediate results need " + std::to_string(plan.bytes) + " bytes, more than the limit of " +
           std::to_string(limits::kMaxArenaBytes));
    }
    try {
      compiled_->arena = AlignedBuffer(static_cast<std::size_t>(plan.bytes));
    } catch (const std::bad_alloc&) {
      Fail("not enough memory for " + std::to_string(plan.bytes) + " bytes of intermediate results");
    }
    for (const BufferRecord& buffer : emitter.buffers()) compiled_->addresses.push_back(buffer.external);
    auto* arena = static_cast<char*>(compiled_->arena.data());
    for (std::size_t i = 0; i < owners.size(); ++i) compiled_->addresses[owners[i]] = arena + plan.offsets[i];
    for (std::size_t i = 0; i < emitter.buffers().size(); ++i) {
      const BufferRecord& part = emitter.buffers()[i];
      if (!part.whole || part.external != nullptr) continue;
      void* const whole = compiled_->addresses[static_cast<std::size_t>(*part.whole)];
      if (whole != nullptr) compiled_->addresses[i] = static_cast<char*>(whole) + part.offset;
    }
    compiled_->steps = std::move(emitter.steps());
    for (const LabelledStep& step : compiled_->steps) step.step->Bind(compiled_->addresses);
  }

  program::Program program_;
  ExecutableOptions options_;
  PixelRegions regions_;
  std::unique_ptr<Compiled> compiled_;
  std::vector<Form> chosen_;
};

}  // namespace

std::unique_ptr<Compiled> Compile(const program::Program& program, const ExecutableOptions& options) {
  try {
    return Compilation(program, options).Run();
  } catch (const dnnl::error& error) {
    Fail(std::string("the network cannot be prepared: ") + error.what());
  }
}

}  // namespace ulmora::engine::cpu
