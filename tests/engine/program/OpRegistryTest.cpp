#include "engine/program/OpRegistry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace ulmora::engine::program {
namespace {

TEST(OpRegistry, IsSortedAndFindsEachByName) {
  const std::span<const OpDefinition> all = AllOps();
  ASSERT_FALSE(all.empty());
  EXPECT_TRUE(std::ranges::is_sorted(all, {}, &OpDefinition::key));
  for (const OpDefinition& definition : all) EXPECT_EQ(FindOp(definition.key), &definition);
}

TEST(OpRegistry, KnowsNothingElse) {
  EXPECT_EQ(FindOp("const"), nullptr);  // constants are values, no operations
  EXPECT_EQ(FindOp(""), nullptr);
  EXPECT_EQ(FindOp("zzz"), nullptr);
  EXPECT_EQ(FindOp("Conv"), nullptr);
}

TEST(OpRegistry, ParametersAreConsistent) {
  for (const OpDefinition& definition : AllOps()) {
    SCOPED_TRACE(definition.key);
    std::set<std::string_view> names;
    for (const Parameter& parameter : definition.parameters) {
      EXPECT_TRUE(names.insert(parameter.name).second) << parameter.name << " is listed twice";
      EXPECT_EQ(definition.parameters[static_cast<std::size_t>(definition.IndexOf(parameter.name))].name,
                parameter.name);
      EXPECT_TRUE(!parameter.fallback || parameter.presence == Presence::Optional) << parameter.name;
      EXPECT_FALSE(parameter.typeOnly && parameter.mustBeConstant) << parameter.name;
    }
    EXPECT_EQ(definition.IndexOf("no such parameter"), -1);
  }
}

TEST(OpRegistry, HoldsTheOperationsOfImageNetworks) {
  for (const std::string_view key :
       {"add", "cast", "clip", "conv", "conv_transpose", "gelu", "leaky_relu", "mul", "prelu", "real_div", "relu",
        "shape", "sigmoid", "silu", "softmax", "sqrt", "sub", "tanh"}) {
    EXPECT_NE(FindOp(key), nullptr) << key;
  }
}

}  // namespace
}  // namespace ulmora::engine::program
