// The engine against bare oneDNN on the same convolutions, and where the time of a whole network goes. Both sides of a
// comparison run in turns within one run, because the machine's speed wanders.

#include "bench/SampleNetworks.h"
#include "engine/cpu/Executable.h"
#include "engine/cpu/OneDnn.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using namespace ulmora::engine;
namespace onednn = cpu::onednn;

double Milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

struct Times {
  std::vector<double> all;
  [[nodiscard]] double Best() const { return *std::min_element(all.begin(), all.end()); }
  [[nodiscard]] double Median() const {
    std::vector<double> sorted = all;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
    return sorted[sorted.size() / 2];
  }
};

/// The same layers by the library alone: `format any` throughout, ReLU as a post-operation, two buffers in turns.
class BareLoop {
 public:
  BareLoop(int layers, std::int64_t channels, std::int64_t size) {
    const onednn::Dims shape = {1, channels, size, size};
    const auto any = dnnl::memory::format_tag::any;
    const auto f32 = dnnl::memory::data_type::f32;
    const onednn::Dims ones = {1, 1};
    const onednn::Window window = {
        {shape, f32, any}, {{channels, channels, 3, 3}, f32, any}, {}, {shape, f32, any}, ones, {0, 0}, ones, ones};
    for (int i = 0; i < layers; ++i) {
      dnnl::primitive_attr attributes;
      if (i + 1 < layers) {
        dnnl::post_ops relu;
        onednn::AppendEltwise(relu, {dnnl::algorithm::eltwise_relu});
        attributes.set_post_ops(relu);
      }
      const auto description = onednn::DescribeWindow<dnnl::convolution_forward>(
          onednn::Reference::Refused, attributes, dnnl::algorithm::convolution_direct, window);
      if (layers_.empty()) {
        for (dnnl::memory& memory : activations_) memory = dnnl::memory(description->src_desc(), onednn::CpuEngine());
        Fill(activations_[0], 1.0F);
      }
      dnnl::memory weights(description->weights_desc(), onednn::CpuEngine());
      Fill(weights, 1.0F / static_cast<float>(channels));
      layers_.push_back({dnnl::convolution_forward(*description),
                         {{DNNL_ARG_SRC, activations_[static_cast<std::size_t>(i) % 2]},
                          {DNNL_ARG_WEIGHTS, weights},
                          {DNNL_ARG_DST, activations_[static_cast<std::size_t>(i + 1) % 2]}}});
    }
  }

  void Run() {
    for (const auto& [primitive, arguments] : layers_) primitive.execute(onednn::CpuStream(), arguments);
  }

 private:
  static void Fill(const dnnl::memory& memory, float scale) {
    auto* data = static_cast<float*>(memory.get_data_handle());
    const std::size_t count = memory.get_desc().get_size() / sizeof(float);
    for (std::size_t i = 0; i < count; ++i) data[i] = scale * (static_cast<float>(i * 7919 % 1009) / 1009.0F - 0.45F);
  }

  dnnl::memory activations_[2];
  std::vector<std::pair<dnnl::convolution_forward, std::unordered_map<int, dnnl::memory>>> layers_;
};

void FillInput(cpu::Executable& executable) {
  std::size_t i = 0;
  for (float& value : executable.input()) value = static_cast<float>(i++ * 7919 % 1009) / 1009.0F;
}

void CompareStack(int rounds, int layers, std::int64_t channels, std::int64_t size) {
  cpu::Executable ours(sample::ConvolutionStack(layers, channels, size));
  cpu::Executable direct(sample::ConvolutionStack(layers, channels, size), {.winograd = false});
  BareLoop bare(layers, channels, size);
  FillInput(ours);
  FillInput(direct);
  Times oursTimes, directTimes, bareTimes;
  for (int round = 0; round < rounds; ++round) {
    oursTimes.all.push_back(Milliseconds([&] { ours.Run(); }));
    bareTimes.all.push_back(Milliseconds([&] { bare.Run(); }));
    directTimes.all.push_back(Milliseconds([&] { direct.Run(); }));
  }
  std::printf("%d convolutions 3x3, %d channels, %d x %d: best (median) of %d, ms\n", layers,
              static_cast<int>(channels), static_cast<int>(size), static_cast<int>(size), rounds);
  std::printf("  bare direct loop      %8.1f (%.1f)\n", bareTimes.Best(), bareTimes.Median());
  std::printf("  engine                %8.1f (%.1f)  speed against the loop %.2f (%.2f)\n", oursTimes.Best(),
              oursTimes.Median(), bareTimes.Best() / oursTimes.Best(), bareTimes.Median() / oursTimes.Median());
  std::printf("  engine, no Winograd   %8.1f (%.1f)  speed against the loop %.2f (%.2f)\n", directTimes.Best(),
              directTimes.Median(), bareTimes.Best() / directTimes.Best(), bareTimes.Median() / directTimes.Median());
}

/// Best time of every step over some runs, and the share of those that are no convolutions.
void ProfileNetwork(int rounds, const std::string& name, const program::Program& network) {
  const auto start = std::chrono::steady_clock::now();
  cpu::Executable executable(network);
  const double compileTime =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  FillInput(executable);
  const std::vector<std::string> names = executable.StepNames();
  std::vector<double> best(names.size(), 1e12);
  Times whole;
  for (int round = 0; round < rounds; ++round) {
    const std::vector<double> times = executable.TimeSteps();
    for (std::size_t i = 0; i < times.size(); ++i) best[i] = std::min(best[i], times[i]);
    whole.all.push_back(Milliseconds([&] { executable.Run(); }));
  }
  double all = 0.0;
  double outside = 0.0;
  std::printf("\n%s: %.1f ms (median %.1f), compiled in %.0f ms, arena %.1f MB, weights %.1f MB\n", name.c_str(),
              whole.Best(), whole.Median(), compileTime, static_cast<double>(executable.arenaBytes()) / 1e6,
              static_cast<double>(executable.weightBytes()) / 1e6);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool isConvolution = names[i].starts_with("conv") && names[i].find("reorder") == std::string::npos &&
                               names[i].find(": kernel") == std::string::npos;
    all += best[i];
    outside += isConvolution ? 0.0 : best[i];
    std::printf("  %8.0f us  %s\n", best[i], names[i].c_str());
  }
  std::printf("  outside convolutions: %.1f %%\n", 100.0 * outside / all);
}

}  // namespace

/// engine_bench [rounds]
int main(int count, char** arguments) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // results so far survive an interrupted run
  const int rounds = count > 1 ? std::max(1, std::atoi(arguments[1])) : 10;
  CompareStack(rounds, 8, 64, 512);
  ProfileNetwork(rounds, "half-resolution residual U-Net 32-64-128, one block a level, 512 x 512",
                 sample::ResidualUNet({32, 64, 128}, 1, 512, 512));
  ProfileNetwork(rounds, "half-resolution residual U-Net 48-96-192, two blocks a level, 512 x 512",
                 sample::ResidualUNet({48, 96, 192}, 2, 512, 512));
  return 0;
}
