// What clients send: base64 and typed request parameters.
#include "common/base64.h"
#include "common/json_param.h"
#include "common/log.h"
#include "fixture.h"

namespace {

TEST(Base64, DecodesWhatStandsBeforeTheFirstForeignCharacter) {
  const char* const rows[][2] = {
      {"Zm8", "fo"}, {"Y", ""}, {"=YQ=", ""}, {"Zm9v\nYmFy", "foo"}, {"+/+/", "\xfb\xff\xbf"}};
  for (const auto& [text, bytes] : rows) {
    std::string out = "kept:";
    base64_decode(text, &out);
    EXPECT_EQ(out, std::string("kept:") + bytes) << text;
  }
}

using JsonParamTest = CommonTest;

TEST_F(JsonParamTest, TakesExactlyTheNamedType) {
  log_set_dir(in_dir("log").c_str());
  const struct {
    const char *value, *type;
    bool taken;
  } rows[] = {
      {"5", "string", false}, {"null", "string", false},    {"2147483647", "int", true},
      {"5.5", "int", false},  {"2147483648", "int", false}, {"4294967296", "long", true},
      {"true", "bool", true}, {"true", "int", false},       {"4294967296", "bool", false},
  };
  for (const auto& row : rows) {
    Json::Value root;
    ASSERT_TRUE(json_parse(R"({"k":)" + std::string(row.value) + "}", &root));
    std::int64_t out[4] = {};  // room for any of the types that are taken here
    bool error = false;
    parser_param_from_json_str(root, "k", out, row.type, &error);
    EXPECT_EQ(error, !row.taken) << row.value << " " << row.type;
    EXPECT_EQ(out[0], row.taken ? root["k"].asInt64() : 0);
  }
  EXPECT_THAT(contents(in_dir("log/.nxe_ks_vistalprod.log")),
              ::testing::ContainsRegex("\\] k Type fail, this input value type is long\\.\n$"));
}

}  // namespace
