// What the tile loop costs beyond inference: a 24-megapixel image with an identity tile function, against a plain copy
// of the bytes that the loop must move, in turns within one run; and its peak memory in bytes per pixel.
//
// tile_loop_bench [width height stride repetitions]
#include "common/TileGeometry.h"
#include "core/TiledInference.h"

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kWindow = 512;

// Processor time: both sides run on one thread, and other processes on the machine must not count.
double Seconds(const std::function<void()>& work) {
  const std::clock_t start = std::clock();
  work();
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// One line of the process's status, in bytes; 0 where the system has no such file.
double StatusBytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key + ":", 0) == 0) return 1024.0 * std::stod(line.substr(key.size() + 1));
  }
  return 0.0;
}

// Bytes that the work takes at its peak beyond what the process holds already.
double PeakBytes(const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";
  const double before = StatusBytes("VmRSS");
  work();
  return StatusBytes("VmHWM") - before;
}

struct Traffic {
  const char* what;
  double readBytes;
  double writtenBytes;
};

// Every byte that the definition of the loop makes it read or write, by stage. Weighting counts as part of adding,
// since a weighted tile needs not be written to be added.
std::vector<Traffic> TrafficOf(const ulmora::TileGeometry& g) {
  const double pixel = 3 * sizeof(float);
  const double image = pixel * g.width * g.height, padded = pixel * g.paddedWidth * g.paddedHeight;
  const double tiles = pixel * g.tileCount * kWindow * kWindow;
  return {{"pad: image to padded image", image, padded},      {"clear the accumulator", 0, padded},
          {"cut: padded image to tiles", tiles, tiles},       {"tile function: tiles to results", tiles, tiles},
          {"add: results and accumulator", 2 * tiles, tiles}, {"crop: accumulator to image", image, image}};
}

// Copies that read and write these bytes once each, between buffers of the image's size, the target fresh like those of
// the loop.
void PlainCopy(const cv::Mat& image, double bytes) {
  const std::size_t size = image.total() * image.elemSize();
  auto remaining = static_cast<std::size_t>(bytes);
  std::unique_ptr<char[]> target(new char[size]);
  while (remaining > 0) {
    const std::size_t count = std::min(remaining, size);
    std::memcpy(target.get(), image.data, count);
    benchmark::DoNotOptimize(target.get());
    benchmark::ClobberMemory();
    remaining -= count;
  }
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const auto argument = [&](int i, int preset) { return argc > i ? std::stoi(argv[i]) : preset; };
  const int width = argument(1, 6000), height = argument(2, 4000), stride = argument(3, 480);
  cv::Mat image(height, width, CV_32FC3);
  cv::randu(image, 0.0, 1.0);
  const auto g = ulmora::TileGeometry::ForImage(width, height, kWindow, stride);
  const auto identity = [](const cv::Mat& tile) { return tile.clone(); };
  const auto loop = [&] { static_cast<void>(ulmora::core::RunTiledInference(image, kWindow, stride, identity, {})); };

  double moved = 0;
  for (const Traffic& traffic : TrafficOf(g)) {
    std::printf("%-34s read %7.1f MB, write %7.1f MB\n", traffic.what, traffic.readBytes / 1e6,
                traffic.writtenBytes / 1e6);
    moved += traffic.readBytes + traffic.writtenBytes;
  }
  const double pixels = static_cast<double>(width) * height;
  std::printf("peak memory beyond the image: %.1f bytes per pixel; padded image and accumulator take %.1f\n",
              PeakBytes(loop) / pixels, 24.0 * g.paddedWidth * g.paddedHeight / pixels);

  std::vector<double> loops, copies, ratios;
  for (int i = 0; i < argument(4, 7); ++i) {
    copies.push_back(Seconds([&] { PlainCopy(image, moved / 2); }));
    loops.push_back(Seconds(loop));
    ratios.push_back(loops.back() / copies.back());
  }
  std::printf("%d tiles; tile loop %.3f s, copy that moves the same bytes %.3f s (medians)\n", g.tileCount,
              Median(loops), Median(copies));
  std::printf("ratio: median %.2f, from %.2f to %.2f; at most 3 is the aim\n", Median(ratios),
              *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()));
  return 0;
}
