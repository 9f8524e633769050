#include "engine/cpu/LayoutPlan.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

/// Bytes that one core moves in a microsecond, reading and writing, as measured on large tensors.
constexpr double kReorderBytes = 6'500.0;
/// Taking the channels apart again touches one cache line per channel and is that much slower.
constexpr double kGatherPenalty = 2.0;
/// A step costs this much even on nothing: a parallel region and the library's bookkeeping.
constexpr double kStepCost = 5.0;

std::size_t Index(program::ValueId id) {
  return static_cast<std::size_t>(id);
}

/// A choice of forms, with what each value is produced and wanted as: then the cost of a value's reorders is found
/// without a look at its readers, of which there may be many.
class State {
 public:
  State(const LayoutProblem& problem, std::vector<std::size_t> choice)
      : problem_(problem), choice_(std::move(choice)), values_(problem.bytes.size()) {
    for (const program::ValueId id : problem.outputs) Wanted(id, Layout::Plain) += 1;
    for (std::size_t i = 0; i < choice_.size(); ++i) Count(i, 1);
  }

  [[nodiscard]] const std::vector<std::size_t>& choice() const noexcept { return choice_; }
  [[nodiscard]] const PlannedForm& FormOf(std::size_t i) const { return problem_.operations[i].forms[choice_[i]]; }

  void Choose(std::size_t i, std::size_t form) {
    Count(i, -1);
    choice_[i] = form;
    Count(i, 1);
  }

  [[nodiscard]] double Reorders(program::ValueId id) const {
    const ValueState& value = values_[Index(id)];
    double cost = 0.0;
    for (const Layout to : kAllLayouts) {
      if (value.wanted[static_cast<std::size_t>(to)] > 0) {
        cost += ReorderCost(problem_.bytes[Index(id)], value.produced, to);
      }
    }
    return cost;
  }

  [[nodiscard]] double Total() const {
    double cost = 0.0;
    for (std::size_t i = 0; i < choice_.size(); ++i) cost += FormOf(i).cost;
    for (std::size_t id = 0; id < values_.size(); ++id) cost += Reorders(static_cast<program::ValueId>(id));
    return cost;
  }

 private:
  struct ValueState {
    Layout produced = Layout::Plain;
    std::array<int, kLayouts> wanted{};
  };

  int& Wanted(program::ValueId id, Layout layout) {
    return values_[Index(id)].wanted[static_cast<std::size_t>(layout)];
  }

  void Count(std::size_t i, int sign) {
    for (const Need& need : FormOf(i).needs) Wanted(need.value, need.layout) += sign;
    for (const program::ValueId id : problem_.operations[i].results) values_[Index(id)].produced = FormOf(i).result;
  }

  const LayoutProblem& problem_;
  std::vector<std::size_t> choice_;
  std::vector<ValueState> values_;
};

/// Values whose reorders depend on the form of the operation.
std::vector<program::ValueId> ValuesAround(const PlannedOperation& operation) {
  std::vector<program::ValueId> values = operation.results;
  for (const PlannedForm& form : operation.forms) {
    for (const Need& need : form.needs) values.push_back(need.value);
  }
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  return values;
}

/// Tries every form of operation i with all others fixed and keeps the best. True if it changed.
bool Improve(const LayoutProblem& problem, std::size_t i, State& state) {
  const PlannedOperation& operation = problem.operations[i];
  if (operation.forms.size() == 1) return false;
  const std::vector<program::ValueId> around = ValuesAround(operation);
  const auto costOf = [&](std::size_t form) {
    state.Choose(i, form);
    double cost = operation.forms[form].cost;
    for (const program::ValueId id : around) cost += state.Reorders(id);
    return cost;
  };
  const std::size_t before = state.choice()[i];
  std::size_t best = before;
  double bestCost = costOf(before);
  for (std::size_t form = 0; form < operation.forms.size(); ++form) {
    const double cost = costOf(form);
    // A tie keeps the form at hand, or descent would never end.
    if (cost < bestCost - 1e-9) {
      bestCost = cost;
      best = form;
    }
  }
  state.Choose(i, best);
  return best != before;
}

void Descend(const LayoutProblem& problem, State& state) {
  constexpr int kSweeps = 16;
  const std::size_t count = problem.operations.size();
  for (int sweep = 0; sweep < kSweeps; ++sweep) {
    bool changed = false;
    for (std::size_t i = 0; i < count; ++i) changed = Improve(problem, i, state) || changed;
    for (std::size_t i = count; i-- > 0;) changed = Improve(problem, i, state) || changed;
    if (!changed) return;
  }
}

/// The cheapest form of each operation by itself; if `preferred` is given, of those with that result if there are any.
std::vector<std::size_t> Start(const LayoutProblem& problem, const Layout* preferred) {
  std::vector<std::size_t> choice;
  for (const PlannedOperation& operation : problem.operations) {
    const auto worse = [&](const PlannedForm& a, const PlannedForm& b) {
      const bool aLacks = preferred != nullptr && a.result != *preferred;
      const bool bLacks = preferred != nullptr && b.result != *preferred;
      return aLacks != bLacks ? bLacks : a.cost < b.cost;
    };
    const auto best = std::min_element(operation.forms.begin(), operation.forms.end(), worse);
    choice.push_back(static_cast<std::size_t>(best - operation.forms.begin()));
  }
  return choice;
}

}  // namespace

double ReorderCost(std::int64_t bytes, Layout from, Layout to) {
  if (bytes == 0 || from == to) return 0.0;
  const double cost = static_cast<double>(bytes) / kReorderBytes;
  return kStepCost + (to == Layout::Plain ? kGatherPenalty * cost : cost);
}

double PlanCost(const LayoutProblem& problem, const std::vector<std::size_t>& choice) {
  return State(problem, choice).Total();
}

std::vector<std::size_t> ChooseForms(const LayoutProblem& problem) {
  std::vector<std::size_t> best;
  double bestCost = std::numeric_limits<double>::infinity();
  const auto consider = [&](std::vector<std::size_t> choice) {
    State state(problem, std::move(choice));
    Descend(problem, state);
    const double cost = state.Total();
    if (cost < bestCost) {
      bestCost = cost;
      best = state.choice();
    }
  };
  consider(Start(problem, nullptr));
  for (const Layout& layout : kAllLayouts) consider(Start(problem, &layout));
  return best;
}

}  // namespace ulmora::engine::cpu
