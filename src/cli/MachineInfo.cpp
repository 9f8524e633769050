#include "cli/MachineInfo.h"

#include "cli/JsonString.h"
#include "cli/ModelLookup.h"
#include "cli/Product.h"
#include "cli/UpdateCheck.h"

#include <iostream>
#include <sstream>

namespace ulmora::cli {
namespace {

std::string Quoted(const std::string& text) {
  std::ostringstream quoted;
  JsonString(quoted, text);
  return quoted.str();
}

const char* Boolean(bool value) {
  return value ? "true" : "false";
}

void WriteFeatures(std::ostream& out) {
  out << R"(  "features": {
    "linear_mtf": {
      "supported": true,
      "default": false,
      "option": "linear",
      "shadows_clipping_default": -2.8,
      "target_background_default": 0.25,
      "restore_clipped_source_samples": false
    },
    "update_check": {
      "supported": )"
      << Boolean(UpdateCheckAvailable()) << R"(
    }
  },
)";
}

void WriteModels(std::ostream& out, const std::string& v1Package, const std::string& v2Package) {
  out << R"(  "models": [
    {
      "id": 1,
      "label": "v1",
      "default_weights": )"
      << Quoted(v1Package) << R"(,
      "search_paths": ["executable_dir", "portable_lib_dir", "install_lib_dir", "system_lib_dir"],
      "color_spaces": ["rgb"],
      "rejects_identical_rgb_planes": true,
      "default": false
    },
    {
      "id": 2,
      "label": "v2",
      "default_weights": )"
      << Quoted(v2Package) << R"(,
      "search_paths": ["executable_dir", "portable_lib_dir", "install_lib_dir", "system_lib_dir"],
      "color_spaces": ["grayscale", "rgb"],
      "default": true
    }
  ],
)";
}

// The column limit bends here: an entry stands on one line, as it is printed.
// clang-format off
void WriteOptions(std::ostream& out) {
  out << R"(  "options": [
    { "name": "machine_info", "flags": ["--machine-info"], "type": "boolean", "default": false, "mode": "introspection" },
    { "name": "help", "flags": ["-h", "--help"], "type": "boolean", "default": false, "mode": "introspection" },
    { "name": "version", "flags": ["--version"], "type": "boolean", "default": false, "mode": "introspection" },
    { "name": "check_updates", "flags": ["--check-updates"], "type": "boolean", "default": false, "mode": "introspection" },
    { "name": "input", "flags": ["-i", "--input"], "type": "path", "required": true, "mode": "processing" },
    { "name": "output", "flags": ["-o", "--output"], "type": "path", "required": false, "default": "denoised.jpg", "mode": "processing", "creates_output": true },
    { "name": "weights", "flags": ["-w", "--weights"], "type": "path", "required": false, "default": "", "mode": "processing" },
    { "name": "stride", "flags": ["-s", "--stride"], "type": "integer", "required": false, "default": 480, "minimum": 2, "maximum": 512, "constraints": { "even": true }, "mode": "processing" },
    { "name": "model", "flags": ["-m", "--model"], "type": "integer", "required": false, "default": 2, "allowed_values": [1, 2], "mode": "processing" },
    { "name": "linear", "flags": ["--linear"], "type": "boolean", "default": false, "mode": "processing" },
    { "name": "shadows_clipping", "flags": ["--shadows-clipping"], "type": "number", "default": -2.8, "exclusive_maximum": 0.0, "requires": "linear", "mode": "processing" },
    { "name": "target_background", "flags": ["--target-background"], "type": "number", "default": 0.25, "exclusive_minimum": 0.0, "exclusive_maximum": 1.0, "requires": "linear", "mode": "processing" },
    { "name": "quiet", "flags": ["-q", "--quiet"], "type": "boolean", "default": false, "mode": "processing" },
    { "name": "machine_progress", "flags": ["--machine-progress"], "type": "boolean", "default": false, "mode": "processing" }
  ],
)";
}
// clang-format on

std::string DimensionsText(bool hasStarLayerOutputs) {
  const std::string upsample =
      hasStarLayerOutputs
          ? R"(, "with_upsample": { "minimum_width": 256, "minimum_height": 256, "requires_flag": "--upsample" })"
          : "";
  return R"(    "dimensions": { "scope": "original_input_image", "default": { "minimum_width": 512, "minimum_height": 512 })" +
         upsample + " },\n";
}

/// The policies of linear processing, on one line.
std::string LinearProcessingText(bool hasStarLayerOutputs) {
  std::string text =
      R"("linear_processing": { "requires": "linear", "policy": "fixed_sample_format_with_upper_clipping", )"
      R"("float_divisor": 1.0, "observed_range_rescaling": false, "header_extrema_used": false, )"
      R"("negative_policy": )";
  text += hasStarLayerOutputs ? R"("restore_forward_shadow_samples")" : R"("inverse_mtf_without_source_restoration")";
  text += R"(, "upper_policy": "clip_to_one_before_mtf_no_restoration", "warning_stream": "stderr", )"
          R"("warns_when_quiet": true, "physical_precision": "float64", "mtf_precision": "float64", )"
          R"("inverse_precision": "float64", "inference_precision": "float32", "nonfinite_input": "reject", )"
          R"("constant_policy": "preserve_effective_source", "noninvertible_mtf": "reject_varying_endpoint_channel", )";
  if (hasStarLayerOutputs) {
    text += R"("unscreen_fits_scaling": "float_identity_integer_full_range_fraction", )";
  }
  text += R"("fits_output_mapping": { "image": )";
  text += hasStarLayerOutputs ? R"("fixed_divisor_times_final_main_with_shadow_restoration")"
                                R"(, "difference": "fixed_divisor_times_clamped_normalized_effective_minus_main")"
                                R"(, "unscreen": "fraction_of_fixed_format_white")"
                              : R"("fixed_divisor_times_final_main")";
  return text + " } } },\n";
}

std::string InputsText(bool hasStarLayerOutputs) {
  return R"(    "inputs": [
      {
        "formats": ["tiff", "tif", "png"],
        "sample_types": ["uint8", "uint16"],
        "color_spaces": ["grayscale", "rgb"]
      },
      {
        "formats": ["fit", "fits", "fts", "fit.gz", "fits.gz", "fts.gz"],
        "sample_types": ["uint8", "int8", "int16", "uint16", "int32", "uint32", "float32", "float64"],
        "color_spaces": ["grayscale", "rgb"],
        "layouts": ["2d_image", "3d_rgb_cube"],
        "float_input_range": { "minimum": 0.0, "maximum": 1.0, "normalized": true,
          )" +
         LinearProcessingText(hasStarLayerOutputs) +
         R"(        "scope": "standard_image_hdu"
      }
    ],
)";
}

std::string OutputsText(bool hasStarLayerOutputs) {
  const std::string exceptions = hasStarLayerOutputs ? R"(
          "fits_input_exceptions": {
            "float_unscreen": "preserve_storage_type_identity_scaling_dimensionless",
            "integer_unscreen": "preserve_storage_type_full_range_fraction"
          },)"
                                                     : "";
  return R"(    "outputs": [
      {
        "formats": ["tiff", "tif", "png"],
        "sample_types": ["uint8", "uint16"],
        "sample_type_policy": {
          "uint8_non_fits_input": "uint8",
          "uint16_non_fits_input": "uint16",
          "fits_input": "uint16",
          "normalized_white": { "uint8": 255, "uint16": 65535 },
          "explicit_override": false
        },
        "color_spaces": ["grayscale", "rgb"]
      },
      {
        "formats": ["fit", "fits", "fts"],
        "sample_types": ["uint8", "int8", "int16", "uint16", "int32", "uint32", "float32", "float64"],
        "sample_type_policy": {
          "fits_input": "preserve_storage_type_and_scaling",
          "integer_quantization": "nearest_storage_value",
          "integer_overflow": "source_storage_limits_with_warning",)" +
         exceptions + R"(
          "non_fits_input": "float32",
          "explicit_override": false
        },
        "color_spaces": ["grayscale", "rgb"],
        "layouts": ["2d_image", "3d_rgb_cube"],
        "scope": "standard_image_hdu"
      }
    ],
)";
}

const char* MetadataText() {
  return R"(    "metadata_preservation": {
      "fits_header_same_family": true,
      "fits_sample_representation_same_family": true,
      "fits_container_policy": {
        "source_hdu": "selected_supported_image_hdu",
        "output_container": "new_single_image_fits",
        "preserved_header_cards": "applicable_nonstructural_cards_from_selected_hdu",
        "copies_other_hdus": false
      },
      "astrotiff_image_description_same_family": true,
      "cross_format": false
    },
    "literal_paths": true
)";
}

const char* ChannelsText() {
  return R"(  "diagnostics": {
    "schema": "quorvanthine.cli.diagnostic.v1", "stream": "stderr",
    "machine_option": "machine_progress", "fields": ["schema", "severity", "code", "message"],
    "severity": ["info", "warning"], "quiet_suppresses_info": true,
    "warning_codes": ["data_loss", "output_fidelity", "execution_fallback"],
    "quiet_warning_free_success": "empty_stdout_and_stderr_unless_explicit_machine_output"
  },
  "progress": {
    "human": {
      "supported": true,
      "stream": "stdout",
      "format": "human_percent_lines",
      "stable": false
    },
    "machine": {
      "supported": true,
      "stream": "stderr",
      "format": "json_lines",
      "schema": "quorvanthine.cli.progress.v1",
      "events": ["start", "progress", "finish", "error"],
      "stable": true,
      "option": "machine_progress"
    }
  }
})";
}

}  // namespace

void WriteCommonHeader(std::ostream& out, const std::string& product, const std::string& displayName,
                       const std::string& executable) {
  const std::string backendId = Quoted(BackendId());
  const std::string backendName = Quoted(BackendDisplayName());
  out << "{\n"
      << R"(  "schema": "quorvanthine.cli.machine-info.v1",)"
      << "\n"
      << R"(  "product": )" << Quoted(product) << ",\n"
      << R"(  "display_name": )" << Quoted(displayName) << ",\n"
      << R"(  "executable": )" << Quoted(executable) << ",\n"
      << R"(  "version": )" << Quoted(kVersion) << ",\n"
      << R"(  "build": )" << Quoted(kBuildNumber) << ",\n"
      << R"(  "backend": {)"
      << "\n"
      << R"(    "id": )" << backendId << ",\n"
      << R"(    "display_name": )" << backendName << ",\n"
      << R"(    "providers": [)"
      << "\n"
      << R"(      { "id": )" << backendId << R"(, "display_name": )" << backendName
      << R"(, "available": "always", "selection": "automatic" })"
      << "\n"
      << "    ]\n"
      << "  }";
}

void WriteIo(std::ostream& out, const char* indent, bool hasStarLayerOutputs) {
  const std::string text = "\"io\": {\n  \"images\": {\n" + DimensionsText(hasStarLayerOutputs) +
                           InputsText(hasStarLayerOutputs) + OutputsText(hasStarLayerOutputs) + MetadataText() +
                           "  },\n" + ChannelsText();
  std::istringstream lines(text);
  std::string line;
  const char* separator = "";
  while (std::getline(lines, line)) {
    out << separator << indent << line;
    separator = "\n";
  }
}

void WriteLumvaneMachineInfo(const std::string& v1Package, const std::string& v2Package) {
  WriteCommonHeader(std::cout, kExecutableName, kDisplayName, kExecutableName);
  std::cout << ",\n";
  WriteFeatures(std::cout);
  WriteModels(std::cout, v1Package, v2Package);
  WriteOptions(std::cout);
  WriteIo(std::cout, "  ", false);
  std::cout << "\n}\n";
}

}  // namespace ulmora::cli
