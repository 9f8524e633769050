#pragma once
// One open CFITSIO file and the turning of CFITSIO's status into an exception. For the FITS sources alone.

#include <fitsio.h>

#include <string>

namespace ulmora::cli {

/// The text that CFITSIO has for a status.
[[nodiscard]] std::string FitsStatusMessage(int status);

/// Returns at once for status 0; otherwise throws std::invalid_argument with
/// "<stage> failed for FITS image <path>: <status text>".
void CheckFits(int status, const std::string& stage, const std::string& path);

/// The path as CFITSIO's disk-file calls take it literally: they would strip a leading blank.
[[nodiscard]] std::string FitsDiskName(const std::string& path);

/// Owns one open file handle; closes it on scope exit and drops that status, so that an exception on the way out stays
/// the one that is reported.
class FitsFile {
 public:
  FitsFile() = default;
  ~FitsFile() { CloseNoThrow(); }
  FitsFile(const FitsFile&) = delete;
  FitsFile& operator=(const FitsFile&) = delete;

  /// Where an opening or creating call puts the handle.
  [[nodiscard]] fitsfile** Out() noexcept { return &file_; }
  [[nodiscard]] fitsfile* Get() const noexcept { return file_; }

  /// Closes; throws as CheckFits does. Nothing on an empty object.
  void CloseChecked(const std::string& stage, const std::string& path);
  void CloseNoThrow() noexcept;

 private:
  fitsfile* file_ = nullptr;
};

}  // namespace ulmora::cli
