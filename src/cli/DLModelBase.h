#pragma once
// The image pipeline of one denoising run: its images, parameters and tile layout, and every stage from the input file
// to the output file. The stages live in source files of their own: DLModelBaseRead, DLModelBaseTiles,
// DLModelBaseLinear and DLModelBaseWrite.

#include "cli/CliDiagnostics.h"
#include "cli/FitsMetadata.h"
#include "cli/FitsOutputRole.h"
#include "cli/FixedLinearMtf.h"
#include "common/TileGeometry.h"

#include <opencv2/core.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Used once: read, configure, run the tiles, write. Nothing is virtual, since the object is always a plain local of
/// the one concrete class, LumvaneModel. All failures are exceptions.
class DLModelBase {
 public:
  DLModelBase();
  ~DLModelBase();
  /// An object owns the images of a whole run; a copy would be a mistake.
  DLModelBase(const DLModelBase&) = delete;
  DLModelBase& operator=(const DLModelBase&) = delete;

  /// Where this run's diagnostics go: standard error, in the form that the run's two flags ask for.
  [[nodiscard]] ulmora::cli::CliDiagnostics Diagnostics() const;

  /// Takes the size of the working image and fixes the tile layout. std::invalid_argument for an image smaller than the
  /// window.
  void SetDimensions();

  /// Reads and normalizes an input file and records all that the output side needs of it. Returns three channels in
  /// R, G, B order, CV_32FC3, or CV_64FC3 if `linear`; samples are the stored ones divided by the fixed divisor of
  /// their format, never clipped here. With `upsample` the result has twice the rows and columns. std::invalid_argument
  /// for a path or file that cannot be read and for channel counts and depths that are not accepted.
  cv::Mat ReadImageIn(std::string path, bool upsample, bool linear);

  /// True for one channel and for three channels that are equal in every sample. std::invalid_argument for any other
  /// channel count.
  [[nodiscard]] bool IsGrayscale(cv::Mat image);

  /// The multiplier 1/255 or 1/65535 that takes stored integers to the normalized range. std::invalid_argument for
  /// other depths than 8-bit and 16-bit unsigned.
  [[nodiscard]] double InputNormalizationScale(cv::Mat image);

  /// The last `length` characters of the path in lower case. std::out_of_range for a shorter path.
  [[nodiscard]] std::string GetFileExt(std::string path, int length);

  /// CV_8U or CV_16U: the depth of an integer output under this path, for the input that was read.
  [[nodiscard]] int OutputIntegerDepth(std::string path);

  /// Whether the output under this path keeps floating-point samples.
  [[nodiscard]] bool WriteFloat(std::string path);

  /// Turns a normalized R, G, B or one-plane image into what the writer of this path takes: unchanged samples for a
  /// FITS path, otherwise 8-bit or 16-bit integers in the encoder's B, G, R order, values outside [0,1] clipped.
  [[nodiscard]] cv::Mat PrepareOutputImage(std::string path, cv::Mat image, bool rescale);

  /// What the main output file under this path will hold, back in normalized CV_64F and R, G, B order.
  [[nodiscard]] cv::Mat ProjectMainOutput(const std::string& path, const cv::Mat& image);

  /// Writes an image that PrepareOutputImage made, and the metadata that its format keeps.
  void WriteImage(std::string path, cv::Mat image, ulmora::cli::FitsOutputRole role);

  /// The image on a grid of twice (scale 2.0) or half (scale 0.5) the size; float32 or float64. A cv::Exception of a
  /// failed assertion for any other scale.
  [[nodiscard]] cv::Mat RescaleImage(cv::Mat image, double scale);

  /// Runs every tile that is not constant through the tile function and blends the results; same size as the inference
  /// image, CV_32FC3, a region of a larger buffer.
  [[nodiscard]] cv::Mat RunTiledInference(const std::function<cv::Mat(const cv::Mat&)>& infer);
  /// The inference image with its border mirrored out to the padded size, a deep copy.
  [[nodiscard]] cv::Mat PadImage(cv::Mat image);
  /// The region of a padded image that holds the image, sharing its storage.
  [[nodiscard]] cv::Mat CropImage(cv::Mat image);
  /// Multiplies a tile by its blending weights, in its own storage, and returns a deep copy of the result.
  [[nodiscard]] cv::Mat MaskImage(cv::Mat tile, int tileX, int tileY);
  /// The blending weight of pixel (x, y) of the tile with the given origin in the padded image.
  [[nodiscard]] float GetWeight(int tileX, int tileY, int x, int y);

  /// Takes the read image through the stretch of a linear run, with the options' values, or says that there is none.
  /// To be called once, after reading. std::invalid_argument for options and images that the stretch refuses.
  void ConfigureLinearMtf(bool linear, double shadowsClipping, double targetBackground, bool shadowRestoration);
  /// What the tile loop sees: the stretched image in linear mode, otherwise the working image.
  [[nodiscard]] const cv::Mat& InferenceImage() const;
  /// Undoes the stretch on the tile loop's result: CV_64F, normalized, not clamped. A deep copy without linear mode.
  [[nodiscard]] cv::Mat RestoreLinearMtfOutput(const cv::Mat& output) const;
  /// Brings a restored image to the grid and channels of the source and gives constant channels their source samples;
  /// the image itself without linear mode.
  [[nodiscard]] cv::Mat FinalizeLinearImage(const cv::Mat& image) const;
  /// Writes the source's samples over those of constant channels and, where shadows are restored, over those that the
  /// source has at or below the shadows point. A cv::Exception of a failed assertion unless the image has the size and
  /// type of the source.
  void RestoreFinalLinearSamples(cv::Mat& image) const;
  /// Keeps the shadows points and constant channels of a linear run for the FITS writer; nothing for other inputs.
  void RecordFitsLinearShadows(const std::vector<ulmora::core::LinearMtfChannel>& channels);

 protected:
  cv::Mat image_;         ///< working image, normalized, R, G, B; CV_32FC3, or CV_64FC3 in a linear run
  cv::Mat source_image_;  ///< normalized input on its own grid; one plane for grayscale, else image_'s buffer
  cv::Mat linear_image_;  ///< stretched image for inference in linear mode
  std::vector<ulmora::core::LinearMtfChannel> linear_channels_;  ///< the stretch of each channel in linear mode
  bool linear_enabled_ = false;
  bool restore_shadows_ = true;
  std::unique_ptr<ulmora::cli::FixedLinearMtf> fixed_linear_mtf_;  ///< set in linear mode alone
  ulmora::cli::FitsMetadata fits_metadata_;                        ///< what a FITS input was; for FITS inputs alone
  bool input_is_fits_ = false;
  std::string astro_tiff_header_;  ///< header text of a TIFF input; empty if there is none
  int input_depth_ = -1;           ///< OpenCV depth of a non-FITS input, -1 for FITS; decides the output depth
  int height_ = 0;
  int width_ = 0;
  int padded_height_ = 0;
  int padded_width_ = 0;
  int window_size_ = 0;    ///< side of a tile, pixels
  int stride_ = 0;         ///< step between tiles, pixels
  int model_version_ = 0;  ///< 1 or 2
  int margin_ = 0;         ///< half the overlap of neighbouring tiles, pixels
  ulmora::TileGeometry tile_geometry_;
  bool quiet_ = false;
  bool grayscale_ = false;  ///< the input counts as grayscale, also if it stored three equal planes
  bool machine_progress_ = false;
  double input_scale_ = 1.0;  ///< the fixed divisor of the input's sample format; read by diagnostics alone
  std::string weights_path_;
  std::string input_path_;
  std::string output_path_;

 private:
  /// Read a file with the FITS reader, or with the image decoder, and record what it was. The latter's result is empty
  /// for a file that is no image.
  cv::Mat DecodeFits(const std::string& path, bool linear);
  cv::Mat DecodeOther(const std::string& path);
  /// What the FITS writer is to reproduce: null unless the input was FITS.
  [[nodiscard]] const ulmora::cli::FitsMetadata* FitsSource() const;
};
