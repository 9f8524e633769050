// One engine among those that compare_engines.py holds against each other: opens a package, then runs one tile for
// every line that it reads. It prints how long opening took, how long the first tile with its preparation took, how
// long each tile takes, all in milliseconds of wall or processor time, and at the end of its input by how many
// megabytes its memory grew at most.

#include "engine/Model.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <span>
#include <string>

namespace {

/// Milliseconds since some point in time.
using Clock = double (*)();

double WallTime() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double ProcessorTime() {
  return 1e3 * static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

double Milliseconds(Clock clock, const std::function<void()>& work) {
  const double start = clock();
  work();
  return clock() - start;
}

/// The system's own account of this program. What getrusage says begins with the peak of the process that started it.
double PeakMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    double kilobytes = 0.0;
    if (key == "VmHWM:" && status >> kilobytes) return kilobytes / 1024.0;
  }
  return 0.0;
}

/// Reads requests until the input ends.
void Serve(const std::string& package, std::int64_t size, Clock clock) {
  const double before = PeakMegabytes();
  std::unique_ptr<ulmora::engine::Model> model;
  std::printf("%.3f\n", Milliseconds(clock, [&] { model = std::make_unique<ulmora::engine::Model>(package); }));
  std::printf("%.3f\n", Milliseconds(clock, [&] {
                const std::span<float> input = model->BindInput({1, 3, size, size});
                std::fill(input.begin(), input.end(), 0.25F);
                static_cast<void>(model->Run());
              }));
  std::string request;
  while (std::getline(std::cin, request)) {
    std::printf("%.3f\n", Milliseconds(clock, [&] { static_cast<void>(model->Run()); }));
    std::fflush(stdout);
  }
  std::printf("%.1f\n", PeakMegabytes() - before);
}

}  // namespace

/// engine_tile PACKAGE SIZE [wall|processor]
int main(int count, char** arguments) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string clock = count == 4 ? arguments[3] : "wall";
  if (count < 3 || count > 4 || (clock != "wall" && clock != "processor")) {
    std::fputs("usage: engine_tile PACKAGE SIZE [wall|processor]\n", stderr);
    return 2;
  }
  try {
    Serve(arguments[1], std::atoi(arguments[2]), clock == "wall" ? WallTime : ProcessorTime);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
