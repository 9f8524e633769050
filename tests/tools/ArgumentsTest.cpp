#include "tools/Arguments.h"

#include <gtest/gtest.h>

#include <vector>

namespace ulmora::tools {
namespace {

Arguments Parse(const std::vector<std::string>& words) {
  return ParseArguments(words);
}

std::string Refusal(const std::vector<std::string>& words) {
  try {
    static_cast<void>(Parse(words));
  } catch (const UsageError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(Arguments, AModelAlone) {
  const Arguments arguments = Parse({"a.mlpackage"});
  EXPECT_EQ(arguments.model, "a.mlpackage");
  EXPECT_FALSE(arguments.time);
  EXPECT_FALSE(arguments.json);
  EXPECT_FALSE(arguments.check);
  EXPECT_FALSE(arguments.shape);
  EXPECT_EQ(arguments.tolerance, 1e-4);
}

TEST(Arguments, EverythingInAnyOrder) {
  const Arguments arguments =
      Parse({"--time", "--json", "--shape", "1,3,8x16", "a", "--tolerance", "2e-3", "--check", "in.f32", "out.f32"});
  EXPECT_TRUE(arguments.time);
  EXPECT_TRUE(arguments.json);
  EXPECT_EQ(arguments.shape, (engine::Shape{1, 3, 8, 16}));
  EXPECT_EQ(arguments.check.value().input, "in.f32");
  EXPECT_EQ(arguments.check.value().output, "out.f32");
  EXPECT_EQ(arguments.tolerance, 2e-3);
}

TEST(Arguments, HelpAndVersionNeedNoModel) {
  EXPECT_TRUE(Parse({"-h"}).help);
  EXPECT_TRUE(Parse({"--help"}).help);
  EXPECT_TRUE(Parse({"--version"}).version);
}

TEST(Arguments, AModelMayLookLikeAnOption) {
  EXPECT_EQ(Parse({"--", "--time"}).model, "--time");
}

TEST(Arguments, Refused) {
  EXPECT_EQ(Refusal({}), "no model is given");
  EXPECT_EQ(Refusal({""}), "the name of the model is empty");
  EXPECT_EQ(Refusal({"a", "b"}), "a second model is given: 'b'");
  EXPECT_EQ(Refusal({"a", "--frob"}), "unknown option '--frob'");
  EXPECT_EQ(Refusal({"a", "--shape"}), "a value is missing behind --shape");
  EXPECT_EQ(Refusal({"a", "--check", "in"}), "a value is missing behind --check");
  EXPECT_EQ(Refusal({"a", "--shape", "1,,2"}), "the dimension '' is not a number");
  EXPECT_EQ(Refusal({"a", "--shape", "1,b"}), "the dimension 'b' is not a number");
  EXPECT_EQ(Refusal({"a", "--shape", "1,0"}), "the shape '1,0' has a dimension below 1");
  EXPECT_EQ(Refusal({"a", "--check", "i", "o", "--tolerance", "-1"}), "the tolerance '-1' is not 0 or above");
  EXPECT_EQ(Refusal({"a", "--check", "i", "o", "--tolerance", "nan"}), "the tolerance 'nan' is not 0 or above");
  EXPECT_EQ(Refusal({"a", "--check", "i", "o", "--tolerance", "1%"}), "the tolerance '1%' is not a number");
  EXPECT_EQ(Refusal({"a", "--tolerance", "1"}), "--tolerance belongs to --check");
}

}  // namespace
}  // namespace ulmora::tools
