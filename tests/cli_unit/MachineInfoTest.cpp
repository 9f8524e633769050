#include "cli/CliDiagnostics.h"
#include "cli/MachineInfo.h"
#include "cli/ModelLookup.h"
#include "cli/Product.h"
#include "cli/Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace ulmora::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string Io(const char* indent, bool hasStarLayerOutputs) {
  std::ostringstream out;
  WriteIo(out, indent, hasStarLayerOutputs);
  return out.str();
}

TEST(MachineInfo, CommonHeaderEndsWithTheBackend) {
  std::ostringstream out;
  WriteCommonHeader(out, "a\"b", "B", "c");
  EXPECT_EQ(out.str(),
            "{\n"
            "  \"schema\": \"quorvanthine.cli.machine-info.v1\",\n"
            "  \"product\": \"a\\\"b\",\n"
            "  \"display_name\": \"B\",\n"
            "  \"executable\": \"c\",\n"
            "  \"version\": \"1.3.2\",\n"
            "  \"build\": \"0147\",\n"
            "  \"backend\": {\n"
            "    \"id\": \"coreml\",\n"
            "    \"display_name\": \"CoreML\",\n"
            "    \"providers\": [\n"
            "      { \"id\": \"coreml\", \"display_name\": \"CoreML\", \"available\": \"always\", "
            "\"selection\": \"automatic\" }\n"
            "    ]\n"
            "  }");
}

TEST(MachineInfo, EveryLineOfIoStandsBehindTheIndent) {
  std::istringstream lines(Io("....", false));
  for (std::string line; std::getline(lines, line);) EXPECT_TRUE(line.starts_with("....")) << line;
  EXPECT_TRUE(Io("", false).starts_with("\"io\": {\n  \"images\": {\n"));
  EXPECT_TRUE(Io("", false).ends_with("}\n}"));
}

TEST(MachineInfo, NamesTheSchemasAndCodesThatTheChannelsUse) {
  const std::string io = Io("", false);
  EXPECT_THAT(io, HasSubstr(std::string("\"schema\": \"") + CliDiagnostics::Schema() + "\", \"stream\": \"stderr\""));
  EXPECT_THAT(io, HasSubstr(std::string("\"schema\": \"") + ProgressSchema() + '"'));
  for (const CliWarning code : {CliWarning::DataLoss, CliWarning::OutputFidelity, CliWarning::ExecutionFallback}) {
    std::ostringstream line;
    CliDiagnostics{false, false, &line}.Warn(code, "text");
    const std::string text = line.str();
    const std::string name = text.substr(9, text.find(']') - 9);
    EXPECT_THAT(io, HasSubstr('"' + name + '"'));
  }
}

TEST(MachineInfo, TheLayerTextsComeWithTheirCondition) {
  const std::string plain = Io("", false);
  for (const char* absent : {"--upsample", "with_upsample", "unscreen", "difference"}) {
    EXPECT_THAT(plain, Not(HasSubstr(absent)));
  }
  const std::string layers = Io("", true);
  EXPECT_THAT(layers, HasSubstr("\"minimum_height\": 512 }, \"with_upsample\": { \"minimum_width\": 256, "
                                "\"minimum_height\": 256, \"requires_flag\": \"--upsample\" } },\n"));
  EXPECT_THAT(layers, HasSubstr("\"negative_policy\": \"restore_forward_shadow_samples\", "));
  EXPECT_THAT(layers, HasSubstr("\"unscreen_fits_scaling\": \"float_identity_integer_full_range_fraction\", "
                                "\"fits_output_mapping\": { \"image\": "
                                "\"fixed_divisor_times_final_main_with_shadow_restoration\", \"difference\": "
                                "\"fixed_divisor_times_clamped_normalized_effective_minus_main\", \"unscreen\": "
                                "\"fraction_of_fixed_format_white\" } } },\n"));
  EXPECT_THAT(layers, HasSubstr("          \"fits_input_exceptions\": {\n"
                                "            \"float_unscreen\": "
                                "\"preserve_storage_type_identity_scaling_dimensionless\",\n"));
}

}  // namespace
}  // namespace ulmora::cli
