// Typed request parameters and the JSON reader and writer behind them.
#include "common/json_param.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "common/log.h"
#include "fixture.h"

namespace {

class JsonParamTest : public CommonTest {
 protected:
  JsonParamTest() { log_set_dir(in_dir("log").c_str()); }

  // What comes out for the member "k" of `json`, as a text; "-" when the error flag came up.
  template <typename Out>
  static std::string read_as(const std::string& json, const std::string& type) {
    Json::Value root;
    EXPECT_TRUE(json_parse(json, &root)) << json;
    Out out{};
    bool error = false;
    parser_param_from_json_str(root, "k", &out, type, &error);
    EXPECT_TRUE(!error || out == Out{}) << json << " changed the variable";
    return error ? "-" : ::testing::PrintToString(out);
  }

  static std::string read(const std::string& json, const std::string& type) {
    if (type == "string") return read_as<std::string>(json, type);
    return type == "long" ? read_as<std::int64_t>(json, type) : read_as<std::int32_t>(json, type);
  }

  std::string take_log() {
    const std::string path = in_dir("log/.nxe_ks_vistalprod.log");
    const std::string lines = contents(path);
    std::filesystem::remove(path);
    return lines;
  }
};

TEST_F(JsonParamTest, TakesExactlyTheNamedType) {
  const struct {
    const char *value, *type, *result, *logged;
  } rows[] = {
      {R"("text")", "string", R"("text")", ""},
      {R"("")", "string", R"("")", ""},
      {"5", "string", "-", ""},
      {"-5", "int", "-5", ""},
      {"2147483647", "int", "2147483647", ""},
      {"2147483648", "int", "-", ""},
      {"4294967296", "int", "-", ""},
      {R"("5")", "int", "-", ""},
      {"true", "int", "-", ""},
      {"5.5", "int", "-", ""},
      {"4294967296", "long", "4294967296", ""},
      {"-9223372036854775808", "long", "-9223372036854775808", ""},
      {"5.5", "long", "-", ""},
      {"true", "bool", "1", ""},
      {"false", "bool", "0", ""},
      {"null", "bool", "-", ""},
      {R"("true")", "bool", "-", "string"},
      {"1", "bool", "-", "int"},
      {"4294967296", "bool", "-", "long"},
      {"5.5", "bool", "-", "double"},
      {"[]", "bool", "-", "Others"},
      {"{}", "bool", "-", "Others"},
      {"5.5", "double", "-", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(read(R"({"k":)" + std::string(row.value) + "}", row.type), row.result)
        << row.value << " " << row.type;
    const std::string line = take_log();
    if (*row.logged == '\0') {
      EXPECT_EQ(line, "") << row.value << " " << row.type;
    } else {
      EXPECT_THAT(line,
                  ::testing::ContainsRegex(R"( \] \[parser_param_from_json_str\]\[[0-9]+\] k Type fail, )"
                                           "this input value type is " +
                                           std::string(row.logged) + "\\.\n$"));
    }
  }
  EXPECT_EQ(read("{}", "string"), "-");
}

TEST_F(JsonParamTest, KeepsTheFlagUpAndThrowsForWhatIsNoObject) {
  Json::Value root;
  bool error = true;
  std::string out;
  ASSERT_TRUE(json_parse(R"({"k":"fine", "big":18446744073709551615})", &root));
  parser_param_from_json_str(root, "k", &out, "string", &error);
  EXPECT_EQ(out, "fine");
  EXPECT_TRUE(error);
  std::int64_t number = 0;
  EXPECT_THROW(parser_param_from_json_str(root, "big", &number, "long", &error), std::exception);
  EXPECT_THROW(parser_param_from_json_str("text", "k", &out, "string", &error), std::exception);
}

TEST_F(JsonParamTest, ReadsAndWritesAsClientsKnowIt) {
  Json::Value root;
  std::string errors;
  ASSERT_TRUE(json_parse("// remark\n{\"b\":[1, true], \"a\":\"x\\ny\"}", &root, &errors));
  EXPECT_EQ(json_write(root), "{\"a\":\"x\\ny\",\"b\":[1,true]}\n");
  for (const char* broken : {"", "share", "{\"a\":", "{\"a\" 1}"}) {
    errors.clear();
    EXPECT_FALSE(json_parse(broken, &root, &errors)) << broken;
    EXPECT_THAT(errors, ::testing::StartsWith("* Line 1, Column ")) << broken;
  }
  EXPECT_THROW(json_parse(std::string(100000, '['), &root), std::exception);
}

}  // namespace
