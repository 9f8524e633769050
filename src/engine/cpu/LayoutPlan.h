#pragma once
// Which layout each activation takes. Operations offer forms (ways to run, each with its layouts and its cost); values
// that are produced in one layout and wanted in another have to be reordered. Knows costs, no library and no tensors.

#include "engine/cpu/Layout.h"
#include "engine/program/Program.h"

#include <cstddef>
#include <vector>

namespace ulmora::engine::cpu {

/// A value that a form reads, and the layout in which it wants it.
struct Need {
  program::ValueId value = 0;
  Layout layout = Layout::Plain;
};

/// One way to run an operation. The cost is an estimate in microseconds of one core.
struct PlannedForm {
  std::vector<Need> needs;
  Layout result = Layout::Plain;
  double cost = 0.0;
};

struct PlannedOperation {
  std::vector<PlannedForm> forms;  ///< at least one
  std::vector<program::ValueId> results;
};

struct LayoutProblem {
  std::vector<PlannedOperation> operations;
  std::vector<std::int64_t> bytes;        ///< of each value of the program; 0 for those whose layout costs nothing
  std::vector<program::ValueId> outputs;  ///< wanted in Plain at the end; values without a producer begin in Plain
};

/// Estimated microseconds of one core for reordering a tensor of that many bytes; 0 between equal layouts.
[[nodiscard]] double ReorderCost(std::int64_t bytes, Layout from, Layout to);

/// Cost of a choice of one form for each operation, reorders included. A value that several operations want in the same
/// other layout is reordered once.
[[nodiscard]] double PlanCost(const LayoutProblem& problem, const std::vector<std::size_t>& choice);

/// One form for each operation such that changing any single one makes the whole no cheaper: descent from several
/// starting points (the cheapest form of each operation by itself, and each layout throughout).
[[nodiscard]] std::vector<std::size_t> ChooseForms(const LayoutProblem& problem);

}  // namespace ulmora::engine::cpu
