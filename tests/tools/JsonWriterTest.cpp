#include "tools/JsonWriter.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <sstream>

namespace ulmora::tools {
namespace {

std::string Written(const std::function<void(JsonWriter&)>& write) {
  std::ostringstream stream;
  JsonWriter json(stream);
  write(json);
  return stream.str();
}

TEST(JsonWriter, CommasStandBetweenAndNowhereElse) {
  EXPECT_EQ(Written([](JsonWriter& json) {
              json.BeginObject();
              json.Key("a");
              json.BeginArray();
              json.BeginArray();
              json.EndArray();
              json.Whole(-1);
              json.Null();
              json.EndArray();
              json.Bool("b", true);
              json.Key("c");
              json.BeginObject();
              json.EndObject();
              json.Text("d", "e");
              json.EndObject();
            }),
            R"({"a":[[],-1,null],"b":true,"c":{},"d":"e"})");
}

TEST(JsonWriter, KeysAndTextsAreEscaped) {
  EXPECT_EQ(Written([](JsonWriter& json) {
              json.BeginObject();
              json.Text("\"", "\n");
              json.EndObject();
            }),
            R"({"\"":"\n"})");
}

TEST(JsonWriter, Numbers) {
  const auto number = [](double value) { return Written([value](JsonWriter& json) { json.Number(value); }); };
  EXPECT_EQ(number(0.1), "0.1");
  EXPECT_EQ(number(2e-5), "2e-05");
  EXPECT_EQ(number(3), "3");
  EXPECT_EQ(number(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(number(std::numeric_limits<double>::quiet_NaN()), "null");
}

}  // namespace
}  // namespace ulmora::tools
