// One engine among those that compare_engines.py holds against each other: opens a package, then runs one tile for
// every line that it reads. It prints how long opening took, how long the first tile with its preparation took, how
// long each tile takes, all in milliseconds, and at the end of its input by how many megabytes its memory grew at most.

#include "engine/Model.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <span>
#include <string>

namespace {

double Milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
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
void Serve(const std::string& package, std::int64_t size) {
  const double before = PeakMegabytes();
  std::unique_ptr<ulmora::engine::Model> model;
  std::printf("%.3f\n", Milliseconds([&] { model = std::make_unique<ulmora::engine::Model>(package); }));
  std::printf("%.3f\n", Milliseconds([&] {
                const std::span<float> input = model->BindInput({1, 3, size, size});
                std::fill(input.begin(), input.end(), 0.25F);
                static_cast<void>(model->Run());
              }));
  std::string request;
  while (std::getline(std::cin, request)) {
    std::printf("%.3f\n", Milliseconds([&] { static_cast<void>(model->Run()); }));
    std::fflush(stdout);
  }
  std::printf("%.1f\n", PeakMegabytes() - before);
}

}  // namespace

/// engine_tile PACKAGE SIZE
int main(int count, char** arguments) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (count != 3) {
    std::fputs("usage: engine_tile PACKAGE SIZE\n", stderr);
    return 2;
  }
  try {
    Serve(arguments[1], std::atoi(arguments[2]));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
