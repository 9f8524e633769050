#include "tools/LayerTimes.h"

#include "tools/Format.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <span>

namespace ulmora::tools {
namespace {

using engine::StepTime;

constexpr int kRuns = 5;

/// Sums up the steps by what `nameOf` makes of their operation, in the order in which the names appear.
template <typename NameOf>
std::vector<LayerTime> SumUp(const std::vector<StepTime>& steps, const NameOf& nameOf) {
  std::vector<LayerTime> sums;
  std::map<std::string, std::size_t> positions;
  std::map<std::string, std::vector<std::string>> runners;
  for (const StepTime& step : steps) {
    const std::string name = nameOf(step.operation);
    const auto [position, isNew] = positions.emplace(name, sums.size());
    if (isNew) sums.push_back({name, "", 0});
    LayerTime& sum = sums[position->second];
    sum.milliseconds += step.microseconds / 1000;
    std::vector<std::string>& known = runners[name];
    if (std::ranges::find(known, step.runner) != known.end()) continue;
    known.push_back(step.runner);
    sum.runners += (sum.runners.empty() ? "" : " + ") + step.runner;
  }
  return sums;
}

/// A ramp between 0 and 1: zeros would make some networks compute with subnormal numbers or with none at all.
void Fill(std::span<float> input) {
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<float>(i % 1021) / 1021.0F;
}

void WriteTimes(std::ostream& stream, const char* title, const std::vector<LayerTime>& times) {
  double sum = 0;
  for (const LayerTime& time : times) sum += time.milliseconds;
  std::vector<std::vector<std::string>> rows;
  for (const LayerTime& time : times) {
    const double share = sum > 0 ? 100 * time.milliseconds / sum : 0;
    rows.push_back({Fixed(time.milliseconds, 3) + " ms", Fixed(share, 1) + " %", Printable(time.name), time.runners});
  }
  stream << title << ": " << Fixed(sum, 3) << " ms\n";
  WriteTable(stream, {Align::Right, Align::Right, Align::Left, Align::Left}, rows);
}

}  // namespace

std::vector<StepTime> MedianTimes(const std::vector<std::vector<StepTime>>& runs) {
  std::vector<StepTime> medians = runs.front();
  for (std::size_t step = 0; step < medians.size(); ++step) {
    std::vector<double> times;
    for (const auto& run : runs) times.push_back(run[step].microseconds);
    const auto middle = times.begin() + std::ssize(times) / 2;
    std::ranges::nth_element(times, middle);
    medians[step].microseconds = *middle;
  }
  return medians;
}

std::vector<LayerTime> ByLayer(const std::vector<StepTime>& steps) {
  return SumUp(steps, [](const std::string& operation) { return operation; });
}

std::vector<LayerTime> ByKind(const std::vector<StepTime>& steps) {
  std::vector<LayerTime> sums =
      SumUp(steps, [](const std::string& operation) { return operation.substr(0, operation.find(' ')); });
  std::ranges::stable_sort(sums, std::ranges::greater(), &LayerTime::milliseconds);
  return sums;
}

RunTimes MeasureTimes(engine::Model& model, const engine::Shape& shape) {
  const auto start = std::chrono::steady_clock::now();
  Fill(model.BindInput(shape));
  static_cast<void>(model.Run());
  const std::chrono::duration<double, std::milli> first = std::chrono::steady_clock::now() - start;
  std::vector<std::vector<StepTime>> runs;
  for (int run = 0; run < kRuns; ++run) runs.push_back(model.TimeSteps());
  return {shape, first.count(), MedianTimes(runs)};
}

void WriteLayerTimes(std::ostream& stream, const RunTimes& times) {
  stream << "Preparation and first run: " << Fixed(times.firstRunMilliseconds, 1) << " ms for an input of "
         << engine::ToString(times.shape) << '\n';
  WriteTimes(stream, "Time by layer", ByLayer(times.steps));
  WriteTimes(stream, "Time by kind", ByKind(times.steps));
}

}  // namespace ulmora::tools
