// lumvane-model: looks into model packages with the engine that runs them.

#include "engine/Model.h"
#include "tools/Arguments.h"
#include "tools/Check.h"
#include "tools/InputShape.h"
#include "tools/JsonReport.h"
#include "tools/LayerTimes.h"
#include "tools/Report.h"

#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace ulmora;

enum Status : int { kGood = 0, kMissed = 1, kFailed = 2 };

Status Check(const tools::Arguments& arguments) {
  engine::Model model{std::filesystem::path(arguments.model)};
  const tools::CheckResult result = tools::RunCheck(model, arguments);
  if (arguments.json) {
    tools::WriteJsonCheck(std::cout, arguments.model, result);
  } else {
    tools::WriteCheck(std::cout, result);
  }
  return result.passes ? kGood : kMissed;
}

/// What a run takes.
struct Performance {
  std::optional<tools::Cost> cost;
  std::optional<tools::RunTimes> times;
};

/// Nothing of a model that is not run, or whose input may have any shape, unless the command line asks for a run.
Performance Measure(const tools::Arguments& arguments, const engine::Inspection& inspection) {
  if (!inspection.refusal.empty()) {
    if (!arguments.time && !arguments.shape) return {};
    throw std::runtime_error("the engine does not run it: " + inspection.refusal);
  }
  engine::Model model{std::filesystem::path(arguments.model)};
  const std::optional<engine::Shape> shape = tools::ShapeForTile(model, arguments.shape);
  if (!shape) {
    if (!arguments.time) return {};
    throw std::runtime_error("the model declares no shape of its input; give one with --shape");
  }
  Performance performance{tools::Cost{*shape, model.MultiplyAdds(*shape)}, std::nullopt};
  if (arguments.time) performance.times = tools::MeasureTimes(model, *shape);
  return performance;
}

Status Show(const tools::Arguments& arguments) {
  const engine::Inspection inspection = engine::Inspect(arguments.model);
  if (arguments.json) {
    const Performance performance = Measure(arguments, inspection);
    tools::WriteJsonReport(std::cout, arguments.model, inspection, performance.cost, performance.times);
    return kGood;
  }
  // What is known is shown before a run, which may take long and may fail.
  tools::WriteReport(std::cout, arguments.model, inspection);
  std::cout.flush();
  const Performance performance = Measure(arguments, inspection);
  if (performance.cost) tools::WriteCost(std::cout, *performance.cost);
  if (performance.times) tools::WriteLayerTimes(std::cout, *performance.times);
  return kGood;
}

Status Run(const std::vector<std::string>& words) {
  const tools::Arguments arguments = tools::ParseArguments(words);
  if (arguments.help) {
    std::cout << tools::kUsage;
    return kGood;
  }
  if (arguments.version) {
    std::cout << "lumvane-model " LUMVANE_VERSION "\n";
    return kGood;
  }
  const Status status = arguments.check ? Check(arguments) : Show(arguments);
  if (!std::cout.flush()) throw std::runtime_error("cannot write to standard output");
  return status;
}

}  // namespace

int main(int count, char** words) {
  try {
    return Run({words + (count > 0 ? 1 : 0), words + count});
  } catch (const tools::UsageError& error) {
    std::cerr << "lumvane-model: " << error.what() << "; --help tells more\n";
  } catch (const std::exception& error) {
    std::cerr << "lumvane-model: " << error.what() << '\n';
  }
  return kFailed;
}
