#include "cli/FitsFile.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace ulmora::cli {

std::string FitsStatusMessage(int status) {
  std::array<char, FLEN_STATUS> text{};
  fits_get_errstatus(status, text.data());
  return text.data();
}

void CheckFits(int status, const std::string& stage, const std::string& path) {
  if (status == 0) return;
  throw std::invalid_argument(stage + " failed for FITS image " + path + ": " + FitsStatusMessage(status));
}

std::string FitsDiskName(const std::string& path) {
  return path.starts_with(' ') || path.starts_with('~') ? "./" + path : path;
}

void FitsFile::CloseChecked(const std::string& stage, const std::string& path) {
  if (file_ == nullptr) return;
  int status = 0;
  fits_close_file(std::exchange(file_, nullptr), &status);
  CheckFits(status, stage, path);
}

void FitsFile::CloseNoThrow() noexcept {
  if (file_ == nullptr) return;
  int status = 0;
  fits_close_file(std::exchange(file_, nullptr), &status);
}

}  // namespace ulmora::cli
