// Reading and writing FITS against what CFITSIO alone takes for the same file, in the same run.

#include "cli/FitsReader.h"
#include "cli/FitsWriter.h"

#include <fitsio.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace cli = ulmora::cli;

constexpr int kRepetitions = 3;

/// Processor time of this process: these machines are shared, and what others do does not count here.
double ProcessorSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <typename Work>
double Cost(Work&& work) {
  const double began = ProcessorSeconds();
  work();
  return ProcessorSeconds() - began;
}

void Require(int status) {
  if (status != 0) throw std::runtime_error("CFITSIO status " + std::to_string(status));
}

void PlainWrite(const std::string& path, std::array<long, 3> axes, std::vector<double>& samples) {
  std::filesystem::remove(path);
  int status = 0;
  fitsfile* file = nullptr;
  std::array<long, 3> first = {1, 1, 1};
  fits_create_diskfile(&file, path.c_str(), &status);
  fits_create_img(file, FLOAT_IMG, 3, axes.data(), &status);
  fits_write_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(samples.size()), samples.data(), &status);
  fits_write_chksum(file, &status);
  fits_close_file(file, &status);
  Require(status);
}

/// Into memory of its own, as every reader must.
void PlainRead(const std::string& path, std::size_t count) {
  std::vector<double> samples(count);
  int status = 0;
  int anyNull = 0;
  fitsfile* file = nullptr;
  std::array<long, 3> first = {1, 1, 1};
  fits_open_diskfile(&file, path.c_str(), READONLY, &status);
  fits_read_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(samples.size()), nullptr, samples.data(), &anyNull,
                &status);
  fits_close_file(file, &status);
  Require(status);
}

/// Peak resident memory of this process so far, in bytes.
double PeakBytes() {
  std::ostringstream text;
  if (std::FILE* status = std::fopen("/proc/self/status", "r")) {
    std::array<char, 256> line{};
    while (std::fgets(line.data(), line.size(), status) != nullptr) {
      long kib = 0;
      if (std::sscanf(line.data(), "VmHWM: %ld", &kib) == 1) {
        std::fclose(status);
        return static_cast<double>(kib) * 1024.0;
      }
    }
    std::fclose(status);
  }
  return 0.0;
}

}  // namespace

int main(int argc, char** argv) {
  const long width = argc > 1 ? std::atol(argv[1]) : 9600;
  const long height = argc > 2 ? std::atol(argv[2]) : 6400;
  const std::string folder = (std::filesystem::temp_directory_path() / "lumvane-fits-bench").string();
  std::filesystem::create_directories(folder);
  const std::string source = folder + "/in.fits";
  const std::string target = folder + "/out.fits";
  const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3;
  std::array<double, 4> best = {1e9, 1e9, 1e9, 1e9};
  {
    std::vector<double> samples(count);
    for (std::size_t i = 0; i < count; ++i) samples[i] = static_cast<double>((i * 2654435761U) % 65536) / 65535.0;
    for (int i = 0; i < kRepetitions; ++i) {
      best[0] = std::min(best[0], Cost([&] { PlainWrite(source, {width, height, 3}, samples); }));
      best[1] = std::min(best[1], Cost([&] { PlainRead(source, count); }));
    }
  }
  const double before = PeakBytes();
  std::ostringstream spoken;
  const cli::CliDiagnostics diagnostics{true, false, &spoken};
  for (int i = 0; i < kRepetitions; ++i) {
    cli::FitsImage read;
    best[2] = std::min(best[2], Cost([&] { read = cli::ReadFitsImageWithMetadata(source, false, diagnostics); }));
    best[3] = std::min(best[3], Cost([&] {
                         cli::WriteFitsImage(target, read.image, false, &read.metadata, cli::FitsOutputRole::main,
                                             diagnostics);
                       }));
  }
  std::printf("%ld x %ld x 3 float32, best of %d, seconds of processor time\n", width, height, kRepetitions);
  std::printf("  plain CFITSIO   read %6.2f  write %6.2f\n", best[1], best[0]);
  std::printf("  ours            read %6.2f  write %6.2f\n", best[2], best[3]);
  std::printf("  ratio           read %6.2f  write %6.2f  both %6.2f (wanted: at most 2)\n", best[2] / best[1],
              best[3] / best[0], (best[2] + best[3]) / (best[0] + best[1]));
  std::printf("  peak memory     %6.1f bytes per pixel (plain: %.1f)\n",
              PeakBytes() / static_cast<double>(width * height), before / static_cast<double>(width * height));
  std::filesystem::remove_all(folder);
  return 0;
}
