#include "cli/HelpText.h"

#include "cli/Product.h"

#include <iostream>

namespace ulmora::cli {

std::string CommonInputHelp(bool hasStarLayerOutputs) {
  std::string text =
      "\n\n Inputs:"
      "\n   Recommended: TIFF/TIF, PNG, or supported FITS."
      "\n   Non-FITS images: 8-bit or 16-bit integer, grayscale or RGB."
      "\n   FITS: standard image HDUs in .fit/.fits/.fts or"
      "\n         .fit.gz/.fits.gz/.fts.gz, including"
      "\n         2D grayscale images and simple 3-channel RGB cubes."
      "\n         Integer FITS uses fixed sample-format scaling; floats use scale 1."
      "\n         Float FITS normally uses normalized [0,1] samples."
      "\n         With --linear, values above 1 are clipped before MTF, with a loss warning."
      "\n         No automatic range normalization. Normalize float ADU input upstream."
      "\n         Warnings remain visible with --quiet; header extrema never set the scale."
      "\n         Non-finite/undefined FITS samples are rejected in both modes."
      "\n   Default stderr diagnostics describe formats, ranges, headers and processing."
      "\n   --quiet suppresses routine output, not data-loss/unit/fallback warnings."
      "\n   --machine-progress uses JSON Lines for progress and diagnostics on stderr."
      "\n   FITS/AstroTIFF outputs preserve same-family astronomy metadata."
      "\n   Might work: JPEG/JPG and BMP through OpenCV,"
      "\n               but these formats were not tested."
      "\n   Not accepted: floating-point non-FITS images, alpha channels,"
      "\n                 unsupported non-FITS channel/depth layouts,"
      "\n                 arbitrary scientific FITS cubes, FITS tables,"
      "\n                 and unsupported FITS HDU layouts.";
  if (hasStarLayerOutputs) text += "\n   With --linear only, negative shadows are restored after MTF.";
  return text;
}

std::string CommonOutputHelp(bool hasStarLayerOutputs) {
  std::string text =
      "\n\n Outputs:"
      "\n   TIFF/PNG outputs preserve 8- or 16-bit non-FITS input depth."
      "\n   FITS inputs converted to TIFF/PNG use 16-bit output."
      "\n   Display output maps normalized white to 255 (8-bit) or 65535 (16-bit).";
  text += hasStarLayerOutputs ? "\n   FITS-to-FITS main/difference preserves source storage type and scaling."
                              : "\n   FITS-to-FITS output preserves source storage type, scaling and source units.";
  text += "\n   Linear MTF/inverse uses float64; only neural inference uses float32.";
  if (hasStarLayerOutputs) {
    text +=
        "\n   Main/difference FITS retains source units. Float unscreen uses fractions,"
        "\n   BUNIT=1 and identity FITS scaling; integer unscreen uses full-range encoding."
        "\n   Difference is clamped to [0,1] in normalized units. Reconstruction is"
        "\n   limited by caps, guards and storage quantization."
        "\n   Discarded highlights are not restored by either star-layer output.";
  }
  return text +
         "\n   With --linear, constant channels retain prepared values; singular varying MTF rejects."
         "\n   TIFF/PNG exports remain normalized display data, not physical ADU values."
         "\n   A FITS output is a new single-image FITS built from the selected"
         "\n   supported image HDU. Other HDUs and their headers are not copied."
         "\n   FITS outputs from other input formats use 32-bit floating point."
         "\n   TIFF outputs are always saved with LZW compression."
         "\n   Astronomy metadata is not converted between FITS and TIFF.";
}

std::string PackageLayoutHelp(const CliPackageLayout& layout) {
  std::string text =
      "\n\n Package layout:"
      "\n   Portable archive:"
      "\n     To run from the extracted archive, keep these files together:"
      "\n     " +
      layout.packageDirectory + "/\n       " + layout.executable;
  for (const std::string& package : layout.weightPackages) text += "\n       " + package;
  if (layout.runtimeLibraries) text += "\n       lib/";
  text +=
      "\n       README.txt"
      "\n       LICENSE.txt"
      "\n"
      "\n   Manual install:"
      "\n     To run " +
      layout.executable + " from anywhere, place the files like this:\n     /usr/local/bin/" + layout.executable;
  const std::string library = "\n     /usr/local/lib/" + layout.packageDirectory + '/';
  for (const std::string& package : layout.weightPackages) text += library + package;
  if (layout.runtimeLibraries) text += library + "<runtime libraries>";
  return text;
}

std::string HelpContract(const std::string& v1Package, const std::string& v2Package, bool runtimeLibraries) {
  const std::string models =
      "\n\n Models:"
      "\n   Model 1: RGB/color images only."
      "\n   Model 2: RGB/color and grayscale/monochrome images."
      "\n"
      "\n   RGB images with identical planes are treated as grayscale and require model 2."
      "\n   Both models support RGB composites from monochrome cameras."
      "\n   Drizzle-integrated images from one-shot color cameras"
      "\n     might work as well."
      "\n   Lumvane works best on uncorrelated high-frequency noise;"
      "\n     correlated noise, such as walking noise, will yield poor results.";
  const CliPackageLayout layout{
      kExecutableName, kDisplayName, kExecutableName, {v1Package, v2Package}, runtimeLibraries};
  return CommonInputHelp(false) + models + CommonOutputHelp(false) + PackageLayoutHelp(layout);
}

void PrintNoArgsUsage() {
  std::cout << "Usage: lumvane --input <image> --output <denoised-image> [options]" << std::endl
            << "Example: lumvane --input image.tif --output denoised.tif --model 2" << std::endl
            << "Run 'lumvane --help' for full options and input/output details." << std::endl;
}

}  // namespace ulmora::cli
